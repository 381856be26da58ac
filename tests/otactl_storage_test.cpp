// Power cuts while otactl writes files.

#include "files.h"
#include "forgetful_storage.h"

namespace {

constexpr char BEFORE[] =
    "PATH=" PROGRAMS
    ":$PATH; head='--compatible R5C20 --version 2.1'; key='--key /run/pki/signer.key "
    "--certificate /run/pki/signer.pem --intermediate /run/pki/authority.pem'; ";
constexpr char LOG[] = "/run/storage.trace";
constexpr char FOLDER[] = "/run/w/";

int shell(const std::string& command) {
    return system((BEFORE + command).c_str());
}

// After a power cut each file must be completely the old or the new one; after the end of the
// command it must be the new one.
TEST(Otactl, LeavesOldOrNewFilesAtEveryPowerCut) {
    for (const char* image : {"kernel.bin", "rootfs.img"}) {
        write_file(std::string("/run/images/") + image, pattern_bytes(20000, 1));
        write_file(std::string("/run/large/") + image, pattern_bytes(20000, 2));
    }
    ASSERT_EQ(0, shell("sh " TEXTS "support/agent_packages.sh " TEXTS "../scripts/make_pki"));
    for (const char* command :
         {"otactl pack files --dir /run/w $head $key", "otactl pack files --dir /run/w $head",
          "otactl pack --output /run/w/all.pkg --manifest /run/w/all.manifest $head $key "
          "kernel=/run/large/kernel.bin",
          "otactl sign /run/w/package.manifest $key"}) {
        SCOPED_TRACE(command);
        std::filesystem::remove_all(FOLDER);
        std::filesystem::copy("/run/packages/files", FOLDER);
        ForgetfulStorage storage({FOLDER});
        const ForgetfulStorage::State old = storage.states().back();
        EXPECT_EQ(0, shell(ForgetfulStorage::tracer(LOG) + command));
        std::vector<ForgetfulStorage::State> states;
        storage.replay(LOG, [&](const std::string& /*call*/, const std::string& /*sent*/) {
            const auto now = storage.states();
            states.insert(states.end(), now.begin(), now.end());
        });
        const auto end = storage.states();
        const ForgetfulStorage::State& fresh = end.back();
        EXPECT_TRUE(end.front() == fresh) << "not all is flushed";
        EXPECT_FALSE(fresh == old);
        for (const ForgetfulStorage::State& state : states) {
            for (const auto& [path, content] : old) {
                const auto content_in = [&name = path](const ForgetfulStorage::State& files) {
                    const auto file = files.find(name);
                    return file == files.end() ? std::nullopt : std::optional(file->second);
                };
                const auto now = content_in(state);
                EXPECT_TRUE(now == content || now == content_in(fresh)) << path;
            }
        }
    }
}

}  // namespace
