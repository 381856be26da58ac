// Packages with valid and invalid signatures: with the command otactl, and with the library where a
// process for each case would take too long.

#include "ota/ota_message.h"
#include "package/content.h"
#include "package/signed_manifest.h"
#include "session.h"
#include "stride.h"

namespace {

constexpr char BEFORE[] = ". $TEXTS/support/signing.sh; ";
constexpr char MANIFEST[] = "/run/w/package.manifest";

// A valid package in /run/w, and the service's queue without the service; removes the queue at the
// end.
struct SignedPackage : testing::Test {
    void SetUp() override { ASSERT_EQ("0", run(std::string(BEFORE) + "true")); }
    void TearDown() override { msgctl(queue_, IPC_RMID, nullptr); }
    std::string posted() const { return posted_request(queue_); }

    int queue_ = msgget(ftok(OTA_MSG_QUEUE_PATH, OTA_MSG_QUEUE_PROJECT), IPC_CREAT | 0666);
};

TEST_F(SignedPackage, IsTakenAndNothingElse) {
    expect_session("signed.txt", BEFORE, Rows::BUILD_ON_EACH_OTHER, queue_);
}

TEST_F(SignedPackage, WithAChunkedImageIsRestoredOrRefused) {
    expect_session("chunked.txt", BEFORE, Rows::BUILD_ON_EACH_OTHER, queue_);
}

TEST_F(SignedPackage, IsMadeWithAKeyInAToken) {
    if (EMULATED || run("command -v softhsm2-util")[0] != '0') {
        GTEST_SKIP() << "no SoftHSM for this processor: keys in tokens are not tested";
    }
    expect_session("token.txt", BEFORE, Rows::BUILD_ON_EACH_OTHER, queue_);
}

TEST_F(SignedPackage, SignatureIsWholeAndOfThisManifest) {
    Keyring keyring;
    ASSERT_EQ("", load_keyring("/run/pki/root.pem", "", keyring).text);
    const std::string text = read_file(MANIFEST);
    const std::string signature = read_file(std::string(MANIFEST) + SIGNATURE_SUFFIX);
    const auto verify = [&](const std::string& bytes, const std::string& by) {
        Signer signer;
        return verify_signature(bytes, by, keyring, time(nullptr), signer);
    };
    EXPECT_EQ("", verify(text, signature).text);
    for (size_t size = 0; size < signature.size(); ++size) {
        EXPECT_EQ(PACKAGE_NOT_TRUSTED, verify(text, signature.substr(0, size)).result) << size;
    }
    EXPECT_EQ("the signature has 1 bytes after its end", verify(text, signature + '\0').text);
    for (size_t i = 0; i < text.size(); ++i) {
        std::string other = text;
        other[i] = static_cast<char>(other[i] ^ 1);
        EXPECT_EQ(PACKAGE_NOT_TRUSTED, verify(other, signature).result) << i;
    }
}

TEST_F(SignedPackage, ContentIsCheckedAsItArrives) {
    Manifest manifest;
    ASSERT_EQ("", read_unsigned_manifest("/run/w/all.manifest", manifest).text);
    // The bytes in a gap between two modules belong to no module.
    manifest.modules[1].offset += 100;
    const PackageFile file = package_files(manifest)[0];
    std::string bytes = read_file("/run/w/all.pkg");
    bytes.insert(static_cast<size_t>(manifest.modules[0].size), 100, 'h');
    std::minstd_rand random(1);
    const auto feed = [&](const std::string& all) {
        ContentCheck check(file, "it");
        PackageStatus status;
        for (size_t at = 0; at < all.size() && status.ok();) {
            const size_t size = std::min<size_t>(random() % 70000, all.size() - at);
            status = check.feed({all.data() + at, size});
            at += size;
        }
        return status.ok() ? check.finish() : status;
    };
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ("", feed(bytes).text);
    }
    EXPECT_EQ("it is longer than the 202393 bytes of the manifest", feed(bytes + "x").text);
    bytes.pop_back();
    EXPECT_EQ("it has 202392 bytes, module kernel ends at 202393", feed(bytes).text);
    bytes.back() = '?';
    bytes += '?';
    EXPECT_TRUE(feed(bytes).text.starts_with("module kernel in it has the SHA-256 "));
}

// After its check, or while it is read.
TEST_F(SignedPackage, FileThatIsExchangedIsFound) {
    Manifest manifest;
    ASSERT_EQ("", read_unsigned_manifest(MANIFEST, manifest).text);
    const PackageFile file = package_files(manifest)[0];
    expect_cases("exchanged.txt", [&file](std::istream& row) {
        const std::string exchange = rest_of(row);
        std::string text;
        for (const bool during : {false, true}) {
            EXPECT_EQ("0", run(std::string(BEFORE) + "true"));
            CheckedFile checked;
            bool exchanged = false;
            const auto change = [&](uint64_t) {
                exchanged = exchanged || run("cd /run/w; " + exchange)[0] == '0';
            };
            const auto nothing = [](uint64_t) {};
            EXPECT_EQ("", (during ? check_file("/run/w/kernel.bin", file, change, checked)
                                  : check_file("/run/w/kernel.bin", file, nothing, checked))
                              .text);
            EXPECT_EQ(during ? "" : check_unchanged(checked).text, "");
            change(0);
            text += (during ? ", " : "") + check_unchanged(checked).text;
        }
        return text;
    });
}

TEST_F(SignedPackage, IsNotPostedIntoAFullQueue) {
    const OtaQueueMessage other = {.mtype = 1, .text = {}};
    while (msgsnd(queue_, &other, sizeof(other.text), IPC_NOWAIT) == 0) {
    }
    EXPECT_TRUE(run(std::string(BEFORE) + "timeout 5 otactl send files --dir .")
                    .ends_with("otactl: cannot post the request: the queue is full"));
}

// Makes one call after the other fail: otactl must print one line, post nothing, leave nothing
// open.
TEST_F(SignedPackage, IsNotTakenWhenItCannotBeRead) {
    for (const char* call : {"read", "open", "fstat"}) {
        std::string said;
        for (int n = 1; n < 100 && !said.starts_with("0 "); n += sweep_stride()) {
            said = run(std::string(BEFORE) + "failing " + call + ":" + std::to_string(n) +
                       ":5:0 otactl_with_faults send files --dir .");
            if (!said.starts_with("0 ")) {
                EXPECT_TRUE(said.starts_with("1 / otactl: ") || said.starts_with("64 / otactl: "))
                    << said;
                EXPECT_EQ("", posted()) << said;
                EXPECT_EQ(said.find(" / "), said.rfind(" / ")) << "more than one line: " << said;
            }
        }
        EXPECT_NE("", posted()) << "never got through: " << said;
    }
}

// The same with memory that runs out at any moment of the run.
TEST_F(SignedPackage, IsNotTakenWhenMemoryIsShort) {
    const std::string send = "otactl_short_of_memory send files --dir .";
    if (run("command -v otactl_short_of_memory")[0] != '0') {
        GTEST_SKIP() << "an emulator or a sanitizer has the allocations in its own hands";
    }
    ASSERT_TRUE(run(BEFORE + send).starts_with("0 "));
    ASSERT_NE("", posted());
    const long all = std::stol(read_file("/tmp/allocations"));
    for (long most = 1; most < all; most += 1 + all / 150) {
        std::string said = run(BEFORE + ("ALLOCATIONS=" + std::to_string(most) + " " + send));
        const std::string request = posted();
        if (said.starts_with("0 ")) {
            // Success is allowed only if nearly all allocations had succeeded.
            EXPECT_GT(most, all * 9 / 10) << said;
            continue;
        }
        EXPECT_EQ("", request) << most << ": " << said;
        // The shortage may begin after the signature was accepted.
        const size_t accepted = said.find(" / R5C20");
        if (accepted != std::string::npos) {
            said.erase(accepted, said.find(" / ", accepted + 1) - accepted);
        }
        EXPECT_EQ(said.find(" / "), said.rfind(" / ")) << "more than one line: " << said;
    }
}

}  // namespace
