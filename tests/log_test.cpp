// The log line's form and bounds, and the bytes that reach a subscriber.
#include <gtest/gtest.h>
#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>
#include <string.h>
#include <time.h>

#include <regex>
#include <string>
#include <thread>

#include "files.h"
#include "kt_mmc.h"
#include "log/log_front_end.h"
#include "log/log_producer.h"

namespace {

constexpr char TOPIC[] = "/platform/v1/corvo/log010";

class Log : public testing::Test {
  protected:
    void SetUp() override {
        const CapturedOutput hidden;
        Corvo_SetLogLevel(LOG_LEVEL_ORDINARY);
        Corvo_SetLogOutputForceInit(0);
        Corvo_SetLogCentorWorkingFlag(0);
    }
};

std::string printed(uint32_t level, uint32_t mask, const std::string& text) {
    CapturedOutput output;
    CORVO_LOG(level, mask, LOG_MODULE_UPGRADE, "%s", text.c_str());
    return output.take();
}

TEST_F(Log, LineHasStampFieldsTextAndNewline) {
    CapturedOutput output;
    Corvo_LogPrint(4, 3, CORVO_LOG_PREFIX "count %d", "main", 120, 0x0D737001U, 4, 7);
    EXPECT_TRUE(std::regex_match(output.take(),
                                 std::regex(R"(\d{10}\.\d{3};main;120;0d737001;4;count 7\n)")));
}

TEST_F(Log, StampIsTheLocalTimeToTheMillisecond) {
    char stamp[LOG_STAMP_CAPACITY] = {};
    const time_t before = time(nullptr);
    ts_format_log(stamp, sizeof(stamp));
    const time_t after = time(nullptr);
    char first[16] = {};
    char last[16] = {};
    tm local = {};
    strftime(first, sizeof(first), "%m%d%H%M%S", localtime_r(&before, &local));
    strftime(last, sizeof(last), "%m%d%H%M%S", localtime_r(&after, &local));
    const std::string seconds(stamp, 10);
    EXPECT_TRUE(seconds == first || seconds == last) << stamp;
    EXPECT_EQ(strlen(stamp), 14U);
    EXPECT_EQ(stamp[10], '.');

    CapturedOutput output;
    char untouched[LOG_STAMP_CAPACITY] = "as it was";
    ts_format_log(untouched, LOG_STAMP_MIN_CAPACITY - 1);
    EXPECT_EQ(output.take(), "buf is null or size 23 < 24\n");
    EXPECT_STREQ(untouched, "as it was");
}

TEST_F(Log, LongTextIsCutAt508CharactersBeforeTheNewline) {
    const std::string exact = printed(3, LOG_OUTPUT_CONSOLE, std::string(600, 'x'));
    EXPECT_EQ(exact.size(), 509U);
    EXPECT_EQ(exact.substr(507), "x\n");
}

TEST_F(Log, ThresholdMaskAndGateDecideWhatIsPrinted) {
    EXPECT_EQ(printed(2, LOG_OUTPUT_CONSOLE, "below"), "");
    EXPECT_NE(printed(3, LOG_OUTPUT_CONSOLE, "at"), "");
    EXPECT_EQ(printed(4, LOG_OUTPUT_AUX, "not for the console"), "");
    EXPECT_EQ(printed(4, 0, "for nobody"), "");
    CapturedOutput output;
    Corvo_SetLogLevel(2);
    Corvo_SetLogOutputForceInit(1);
    EXPECT_EQ(output.take(),
              "g_log_level set to:2\n"
              "set log output force init flag:1 Corvo_SetLogOutputForceInit\n");
    EXPECT_EQ(printed(4, LOG_OUTPUT_CONSOLE, "gate shut"), "");
    CapturedOutput working;
    Corvo_SetLogCentorWorkingFlag(1);
    EXPECT_EQ(working.take(), "set log center working flag:1 Corvo_SetLogCentorWorkingFlag\n");
    EXPECT_NE(printed(2, LOG_OUTPUT_CONSOLE, "gate open, level 2"), "");
}

// A subscriber's socket that has reached the producer.
int subscribe(const char* address) {
    const int socket = nn_socket(AF_SP, NN_SUB);
    nn_setsockopt(socket, NN_SUB, NN_SUB_SUBSCRIBE, TOPIC, strlen(TOPIC));
    const int patience = 5000;
    nn_setsockopt(socket, NN_SOL_SOCKET, NN_RCVTIMEO, &patience, sizeof(patience));
    nn_connect(socket, address);
    return socket;
}

TEST_F(Log, SubscriberReceivesTheExactRecordInOrder) {
    CapturedOutput hidden;
    EXPECT_EQ(Corvo_LogProducerInit(0), LOG_PRODUCER_MISSING_ARGUMENT);
    // Several bits: the highest counts, 768 is module 10 as 512 is.
    ASSERT_EQ(Corvo_LogProducerInit(768), LOG_PRODUCER_OK);
    EXPECT_EQ(Corvo_LogProducerInit(512), LOG_PRODUCER_ALREADY_OPEN);
    const int socket = subscribe("ipc:///tmp/corvo_log_pub_ipc010");
    for (int i = 0; i < 500 && nn_get_statistic(socket, NN_STAT_CURRENT_CONNECTIONS) < 1; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const std::string line = std::string(38, 'a') + '\n' + '\0';
    ASSERT_EQ(Corvo_LogProducerSend(3, line.data(), 40), LOG_PRODUCER_OK);
    CORVO_LOG(3U, LOG_OUTPUT_CONSOLE, LOG_MODULE_UPGRADE, "second");

    char message[2048] = {};
    ASSERT_EQ(nn_recv(socket, message, sizeof(message), 0), 74);
    EXPECT_EQ(std::string(message, 74),
              std::string(TOPIC) + "|" + std::string("\3\0\0\0\x28\0\0\0", 8) + line);
    const int size = nn_recv(socket, message, sizeof(message), 0);
    ASSERT_GT(size, 34);
    const std::string second(message + 34, static_cast<size_t>(size - 34));
    EXPECT_EQ(second.substr(second.size() - 8), std::string("second\n\0", 8));
    EXPECT_EQ(static_cast<unsigned char>(message[30]), second.size());
    nn_close(socket);
    Corvo_LogProducerUnInit();
    EXPECT_NE(hidden.take().find("log producer sock has exist"), std::string::npos);
}

TEST_F(Log, LinesAreStillPrintedWhereTheyCannotBePublished) {
    write_file("/tmp/corvo_log_pub_ipc001/in_the_way", "");
    CapturedOutput output;
    EXPECT_EQ(Corvo_LogProducerInit(1), LOG_PRODUCER_BIND_FAILED);
    const std::string lines = output.take();
    EXPECT_EQ(lines.find("KT_mmcBindUrl error -1 erron "), 0U) << lines;
    EXPECT_NE(lines.find("ipc:///tmp/corvo_log_pub_ipc001\nCorvo_LogProducerUnInit\n"),
              std::string::npos);
    EXPECT_EQ(Corvo_LogProducerSend(3, "x\n", 3), LOG_PRODUCER_SEND_FAILED);
    EXPECT_NE(printed(3, LOG_OUTPUT_CONSOLE, "alone"), "");
    remove("/tmp/corvo_log_pub_ipc001/in_the_way");
    remove("/tmp/corvo_log_pub_ipc001");

    char small[4] = {};
    EXPECT_EQ(KT_mmcPutTopic("abcd", small, sizeof(small)), LOG_PRODUCER_BUFFER_TOO_SMALL);
    void* nothing = nullptr;
    EXPECT_EQ(KT_mmcSendMsg(-1, &nothing), LOG_PRODUCER_NULL_MESSAGE);
}

}  // namespace
