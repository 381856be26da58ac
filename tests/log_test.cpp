// Format and limits of the log line, and the bytes that a subscriber receives.
#include <sys/time.h>

#include "files.h"
#include "kt_mmc.h"
#include "log/log_front_end.h"
#include "log/log_producer.h"
#include "otactl/log_line.h"
#include "otactl/log_stream.h"

static std::string g_refused;  // name of the nanomsg function that fails

#define REFUSABLE(result, name, failure, parameters, arguments)          \
    extern "C" result __real_##name parameters;                          \
    extern "C" result __wrap_##name parameters {                         \
        return g_refused == #name ? (failure) : __real_##name arguments; \
    }
REFUSABLE(int, nn_socket, -1, (int domain, int protocol), (domain, protocol))
REFUSABLE(void*, nn_allocmsg, nullptr, (size_t size, int type), (size, type))
REFUSABLE(int, nn_send, -1, (int socket, const void* data, size_t size, int flags),
          (socket, data, size, flags))

extern "C" int __wrap_gettimeofday(timeval* now, void* /*zone*/) {
    *now = {.tv_sec = 1800000000, .tv_usec = 45999};  // 15 January 2027, 8:00 UTC
    return 0;
}

namespace {

constexpr char TOPIC[] = "/platform/v1/corvo/log010";

std::string printed(uint32_t level, uint32_t mask, const std::string& text) {
    CapturedOutput output;
    CORVO_LOG(level, mask, LOG_MODULE_UPGRADE, "%s", text.c_str());
    return output.take();
}

TEST(Log, LineHasStampFieldsTextAndNewline) {
    setenv("TZ", "XYZ-5:45", 1);
    tzset();
    CapturedOutput output;
    Corvo_LogPrint(4, 3, CORVO_LOG_PREFIX "count %d", "main", 120, 0x0D737001U, 4, 7);
    EXPECT_EQ(output.take(), "0115134500.045;main;120;0d737001;4;count 7\n");
    const std::string longest = printed(3, LOG_OUTPUT_CONSOLE, std::string(600, 'x'));
    EXPECT_EQ(longest.size(), 509U);
    EXPECT_TRUE(longest.ends_with("xx\n"));
}

TEST(Log, ThresholdMaskAndGateDecideWhatIsPrinted) {
    EXPECT_EQ(printed(2, LOG_OUTPUT_CONSOLE, "x"), "");
    EXPECT_NE(printed(3, LOG_OUTPUT_CONSOLE, "x"), "");
    EXPECT_EQ(printed(4, LOG_OUTPUT_AUX, "x"), "");
    CapturedOutput output;
    Corvo_SetLogLevel(2);
    Corvo_SetLogOutputForceInit(1);
    EXPECT_EQ(printed(4, LOG_OUTPUT_CONSOLE, "x"), "") << "the gate is shut";
    Corvo_SetLogCentorWorkingFlag(1);
    EXPECT_NE(printed(2, LOG_OUTPUT_CONSOLE, "x"), "");
    Corvo_SetLogLevel(LOG_LEVEL_ORDINARY);
    EXPECT_EQ(
        output.take(),
        "g_log_level set to:2\nset log output force init flag:1 Corvo_SetLogOutputForceInit\n"
        "set log center working flag:1 Corvo_SetLogCentorWorkingFlag\ng_log_level set to:3\n");
}

TEST(Log, SubscriberReceivesTheExactRecordInOrder) {
    EXPECT_EQ(Corvo_LogProducerInit(0), LOG_PRODUCER_MISSING_ARGUMENT);
    LogStream subscriber;
    std::string record;
    ASSERT_TRUE(subscriber.open("ipc:///tmp/corvo_log_pub_ipc010", record)) << record;
    usleep(50000);  // the first attempt to connect fails
    // With several bits the highest one counts: 768 is module 10, like 512.
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(Corvo_LogProducerInit(768), LOG_PRODUCER_OK);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100))
        << "subscribers connect meanwhile";
    EXPECT_EQ(Corvo_LogProducerInit(512), LOG_PRODUCER_ALREADY_OPEN);
    ASSERT_TRUE(subscriber.wait_connected(500)) << "it tries much more often";
    const std::string line = std::string(38, 'a') + '\n' + '\0';
    ASSERT_EQ(Corvo_LogProducerSend(3, line.data(), 40), LOG_PRODUCER_OK);
    const std::string second = printed(3, LOG_OUTPUT_CONSOLE, "second") + '\0';
    subscriber.receive(record, 20000);
    EXPECT_EQ(record, TOPIC + std::string("|\3\0\0\0\x28\0\0\0", 9) + line);
    subscriber.receive(record, 20000);
    EXPECT_EQ(record, TOPIC + std::string("|\3\0\0\0", 5) + static_cast<char>(second.size()) +
                          std::string(3, '\0') + second);
    PublishedLine parsed = {};
    EXPECT_TRUE(parse_log_message(record, parsed));
    record.pop_back();
    EXPECT_FALSE(parse_log_message(record, parsed)) << "a part of a record";
    Corvo_LogProducerUnInit();
}

TEST(Log, RefusedCallsAndArgumentsAreCodes) {
    g_refused = "nn_socket";
    EXPECT_EQ(Corvo_LogProducerInit(512), LOG_PRODUCER_SOCKET_FAILED);
    EXPECT_EQ(Corvo_LogProducerSend(3, "x", 1), LOG_PRODUCER_SEND_FAILED);
    g_refused = "nn_allocmsg";
    EXPECT_EQ(Corvo_LogProducerInit(512), LOG_PRODUCER_OK);
    EXPECT_EQ(Corvo_LogProducerSend(3, "x", 1), LOG_PRODUCER_NO_MEMORY);
    g_refused = "nn_send";
    EXPECT_EQ(Corvo_LogProducerSend(3, "x", 1), LOG_PRODUCER_SEND_FAILED);
    g_refused = "";
    Corvo_LogProducerUnInit();
    const int descriptors = open_descriptors();
    ASSERT_EQ(mkdir("/tmp/corvo_log_pub_ipc010", 0755), 0);
    EXPECT_EQ(Corvo_LogProducerInit(512), LOG_PRODUCER_BIND_FAILED);
    EXPECT_EQ(open_descriptors(), descriptors);
    remove("/tmp/corvo_log_pub_ipc010");
    char text[32] = "";
    void* nothing = nullptr;
    const auto guarded = {KT_mmcSocket(nullptr), KT_mmcTopicMsgSize("topic", 1, nullptr),
                          KT_mmcPutTopic(nullptr, text, 1), KT_mmcPutTopic("topic", nullptr, 9)};
    EXPECT_EQ(std::vector<uint32_t>(guarded),
              std::vector<uint32_t>(4, LOG_PRODUCER_MISSING_ARGUMENT));
    EXPECT_EQ(KT_mmcSendMsg(0, &nothing), LOG_PRODUCER_NULL_MESSAGE);
    EXPECT_EQ(KT_mmcPutTopic("topic", text, 5), LOG_PRODUCER_BUFFER_TOO_SMALL);
    ts_format_log(text, 23);
    EXPECT_STREQ(text, "");
    ts_format_log(text, 24);
    EXPECT_TRUE(matches(text, R"(\d{10}\.\d{3};?)")) << text;
}

}  // namespace
