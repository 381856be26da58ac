// What a power cut leaves of the files that otactl writes.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "files.h"
#include "forgetful_storage.h"

namespace {

constexpr char PATH[] = "PATH=" PROGRAMS ":$PATH; ";
constexpr char LOG[] = "/run/storage.trace";
const std::string FOLDER = "/run/w/";
const std::string HEAD = " --compatible R5C20 --version 2.1";
const std::string KEY =
    " --key /run/pki/signer.key --certificate /run/pki/signer.pem --intermediate "
    "/run/pki/authority.pem";

// Each file is the old one or the new one, whole, and when the command has ended it is the new one.
TEST(Otactl, LeavesOldOrNewFilesAtEveryPowerCut) {
    for (const char* image : {"kernel.bin", "rootfs.img"}) {
        write_file(std::string("/run/images/") + image, pattern_bytes(20000, 1));
        write_file(std::string("/run/large/") + image, pattern_bytes(20000, 2));
    }
    ASSERT_EQ(0, system((PATH + std::string("sh " TEXTS "support/agent_packages.sh " TEXTS
                                            "../scripts/make_pki"))
                            .c_str()));
    for (const std::string& command :
         {"pack files --dir " + FOLDER + HEAD + KEY, "pack files --dir " + FOLDER + HEAD,
          "pack --output " + FOLDER + "all.pkg --manifest " + FOLDER +
              "all.manifest kernel=/run/large/kernel.bin" + HEAD + KEY,
          "sign " + FOLDER + "package.manifest" + KEY}) {
        SCOPED_TRACE(command);
        std::filesystem::remove_all(FOLDER);
        std::filesystem::copy("/run/packages/files", FOLDER);
        ForgetfulStorage storage({FOLDER});
        const ForgetfulStorage::State old = storage.states().back();
        EXPECT_EQ(0, system((PATH + ForgetfulStorage::tracer(LOG) + "otactl " + command).c_str()));
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
                const auto now = state.find(path);
                const auto then = fresh.find(path);
                const bool isOld = now != state.end() && now->second == content;
                const bool isNew = now == state.end()
                                       ? then == fresh.end()
                                       : then != fresh.end() && now->second == then->second;
                EXPECT_TRUE(isOld || isNew) << path;
            }
        }
    }
}

}  // namespace
