// The transport and the system-call client: concurrent callers, time-outs, reconnection and peers
// that do not keep to the protocol.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "dbus/dbus_socket_common.h"
#include "dbus/system_call.h"
#include "files.h"
#include "record_stream.h"

namespace {

std::atomic<size_t> g_longest_send{SIZE_MAX};  // what one send() moves at most

}  // namespace

extern "C" ssize_t __real_send(int fd, const void* data, size_t size, int flags);
extern "C" ssize_t __wrap_send(int fd, const void* data, size_t size, int flags) {
    return __real_send(fd, data, std::min(size, g_longest_send.load()), flags);
}

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr char SOCKET[] = "/tmp/dbus-system.call.daemon";

int32_t echo(const void* in, uint32_t inLen, void* out, uint32_t /*outCap*/) {
    memcpy(out, in, inLen);
    return static_cast<int32_t>(inLen);
}

int32_t slow_echo(const void* in, uint32_t inLen, void* out, uint32_t outCap) {
    std::this_thread::sleep_for(milliseconds(300));
    return echo(in, inLen, out, outCap);
}

// The real server half, as the daemon uses it.
class Server {
  public:
    Server() : info_(SystemCall_DbusInfo_Alloc(3)) {
        snprintf(info_->name, sizeof(info_->name), "%s", SYSTEM_CALL_DAEMON_NAME);
        const char* const names[] = {SYSTEM_CALL_METHOD, POPEN_CALL_METHOD, "no_handler"};
        const decltype(&echo) handlers[] = {echo, slow_echo, nullptr};
        for (int i = 0; i < 3; ++i) {
            SystemCallDbusInterface& entry = *info_->interfaces[i];
            snprintf(entry.name, sizeof(entry.name), "%s", names[i]);
            snprintf(entry.methodMarker, sizeof(entry.methodMarker), "%s", names[i]);
            entry.methodHandler = handlers[i];
        }
        EXPECT_EQ(SystemCall_Dbus_Register(info_), DBUS_OK);
    }
    ~Server() {
        SystemCall_Dbus_UnRegister(info_);
        SystemCall_DbusInfo_Free(info_);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

  private:
    SystemCallDbusInfo* info_;
};

// A server that does to its one client what the test says.
class HostileServer {
  public:
    explicit HostileServer(std::function<void(int)> behaviour) {
        remove(SOCKET);
        listener_.reset(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof(address.sun_path), "%s", SOCKET);
        EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listener_.get(), 5), 0);
        thread_ = std::thread([this, behaviour = std::move(behaviour)] {
            while (true) {
                const corvo::UniqueFd client(accept(listener_.get(), nullptr, nullptr));
                client_ = client.get();
                if (!client.valid()) {
                    return;
                }
                behaviour(client.get());
                client_ = -1;
            }
        });
    }
    ~HostileServer() {
        shutdown(listener_.get(), SHUT_RDWR);
        shutdown(client_, SHUT_RDWR);
        thread_.join();
        remove(SOCKET);
    }
    HostileServer(const HostileServer&) = delete;
    HostileServer& operator=(const HostileServer&) = delete;

  private:
    corvo::UniqueFd listener_;
    std::atomic<int> client_{-1};
    std::thread thread_;
};

bool receive_call(int client, SystemCallDbusMsg* call) {
    return recv(client, call, sizeof(*call), MSG_WAITALL) == sizeof(*call);
}

void reply(int client, SystemCallDbusMsg record, const std::string& text, int32_t ret) {
    record.ret = ret;
    record.len = static_cast<uint32_t>(text.size());
    memcpy(record.data, text.data(), text.size());
    send(client, &record, sizeof(record), MSG_NOSIGNAL);
}

// A client's life around a test; checks that nothing it opened stays.
class Dbus : public testing::Test {
  protected:
    void SetUp() override { descriptors_ = open_descriptors(); }
    void TearDown() override {
        system_call_exit();
        g_longest_send = SIZE_MAX;
        EXPECT_EQ(open_descriptors(), descriptors_);
    }

  private:
    int descriptors_ = 0;
};

TEST_F(Dbus, RecordsSurviveShortTransfers) {
    g_longest_send = 100;
    const Server server;
    ASSERT_EQ(system_call_init(), DBUS_OK);
    EXPECT_EQ(system_call_init(), DBUS_OK);
    for (const char* text : {"0", "256", "-3", "", "12 apes", "99999999999"}) {
        EXPECT_EQ(system_call(text, 5000), std::min(atoll(text), 2147483647LL)) << text;
    }
    const std::string longest(1023, '7');
    char output[1030];
    memset(output, '#', sizeof(output));
    EXPECT_EQ(popen_call(longest.c_str(), output, sizeof(output), 5000), 1023);
    EXPECT_EQ(std::string(output, 1025), longest + '\0' + '#');
    EXPECT_EQ(popen_call("ab", output, 16, 5000), 2);
    EXPECT_EQ(std::string(output, 17), std::string("ab") + std::string(14, '\0') + '7');
}

TEST_F(Dbus, RefusesWhatCannotBeRunAndReportsWhatIsNotAnswered) {
    CapturedOutput output;
    EXPECT_EQ(system_call("true", 100), DBUS_CALL_FAILED);
    const Server server;
    ASSERT_EQ(system_call_init(), DBUS_OK);
    EXPECT_EQ(system_call(std::string(1024, 'x').c_str(), 1000), DBUS_INVALID_ARGUMENT);
    EXPECT_EQ(system_call(nullptr, 1000), DBUS_INVALID_ARGUMENT);
    EXPECT_EQ(call_dbus_method("no_handler", "x", nullptr, 0, 5000), -1);
    const auto start = steady_clock::now();
    EXPECT_EQ(call_dbus_method("unknown", "x", nullptr, 0, 100), DBUS_CALL_FAILED);
    EXPECT_GE(steady_clock::now() - start, milliseconds(100));
    const std::string lines = output.take();
    EXPECT_NE(lines.find("please run system_call_init first"), std::string::npos);
    EXPECT_NE(lines.find("command of 1024 characters refused"), std::string::npos);
}

TEST_F(Dbus, ConcurrentCallersGetTheirOwnReplies) {
    const Server server;
    ASSERT_EQ(system_call_init(), DBUS_OK);
    std::vector<std::thread> callers;
    std::atomic<int> wrong{0};
    for (int c = 0; c < 8; ++c) {
        callers.emplace_back([c, &wrong] {
            for (int i = 0; i < 20; ++i) {
                const int number = c * 1000 + i;
                wrong += system_call(std::to_string(number).c_str(), 10000) != number ? 1 : 0;
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(Dbus, TimeOutIsKeptAndTheLateReplyIsDropped) {
    const Server server;
    ASSERT_EQ(system_call_init(), DBUS_OK);
    CapturedOutput output;
    char text[16];
    const auto start = steady_clock::now();
    EXPECT_EQ(popen_call("late", text, sizeof(text), 150), DBUS_CALL_FAILED);
    const auto waited = steady_clock::now() - start;
    EXPECT_GE(waited, milliseconds(150));
    EXPECT_LT(waited, milliseconds(290));
    std::this_thread::sleep_for(milliseconds(400));
    EXPECT_EQ(system_call("5", 5000), 5);
    const std::string lines = without_source_lines(output.take());
    EXPECT_NE(
        lines.find("\033[33mDBUS: WARN: [dbus/dbus_socket_common:SystemCall_Dbus_Call_Method:"
                   "#] system.call.daemon popen_call Wait Timeout\033[0m\n"
                   "\033[31mDBUS: ERROR: [dbus/dbus_socket_common:SystemCall_Dbus_Call_Method:"
                   "#] system.call.daemon popen_call failed (ret = -1)\033[0m\n"),
        std::string::npos)
        << lines;
    EXPECT_NE(lines.find("method head node is empty"), std::string::npos);
}

TEST_F(Dbus, ServerWaitsForItsHandlersAndTheClientForANewServer) {
    auto server = std::make_unique<Server>();
    ASSERT_EQ(system_call_init(), DBUS_OK);
    char text[16];
    std::thread caller([&text] { popen_call("pending", text, sizeof(text), 1000); });
    std::this_thread::sleep_for(milliseconds(100));
    server.reset();  // returns when the handler has
    EXPECT_NE(access(SOCKET, F_OK), 0);
    server = std::make_unique<Server>();
    EXPECT_EQ(system_call("2", 10000), 2);
    caller.join();
}

TEST_F(Dbus, RepliesThatBreakTheRulesDoNoHarm) {
    // Each behaviour is followed by the right reply, which must still be found.
    const std::vector<std::pair<const char*, std::function<void(int, SystemCallDbusMsg)>>> cases = {
        {"wrong head in one piece",
         [](int c, SystemCallDbusMsg m) {
             m.head = 0x12345678;
             reply(c, m, "9", 1);
             std::this_thread::sleep_for(milliseconds(50));
         }},
        {"garbage glued to the record",
         [](int c, SystemCallDbusMsg) { send(c, "rubbish\xA5", 8, MSG_NOSIGNAL); }},
        {"another call's id",
         [](int c, SystemCallDbusMsg m) {
             m.id = ~m.id;
             reply(c, m, "9", 1);
         }},
        {"the right reply twice, and before it a flood",
         [](int c, SystemCallDbusMsg m) {
             SystemCallDbusMsg other = m;
             other.id = ~m.id;
             for (int i = 0; i < 2000; ++i) {
                 reply(c, other, "9", 1);
             }
             reply(c, m, "7", 1);
         }},
        {"a method without terminator",
         [](int c, SystemCallDbusMsg m) {
             memset(m.method, 'm', sizeof(m.method));
             reply(c, m, "9", 1);
         }},
    };
    for (const auto& [name, misbehave] : cases) {
        CapturedOutput output;
        const HostileServer server([&misbehave = misbehave](int client) {
            SystemCallDbusMsg call = {};
            if (receive_call(client, &call)) {
                misbehave(client, call);
                reply(client, call, "7", 1);
                receive_call(client, &call);  // until the client goes
            }
        });
        ASSERT_EQ(system_call_init(), DBUS_OK);
        EXPECT_EQ(system_call("x", 3000), 7) << name;
        system_call_exit();
    }
}

TEST_F(Dbus, ConnectionClosedAnywhereInAReplyCostsThatCallOnly) {
    std::atomic<size_t> cutAt{0};
    const HostileServer server([&cutAt](int client) {
        SystemCallDbusMsg call = {};
        while (receive_call(client, &call)) {
            memcpy(call.data, "7", 1);
            call.len = 1;
            const bool whole = cutAt == sizeof(call);
            send(client, &call, cutAt, MSG_NOSIGNAL);
            if (!whole) {
                return;
            }
        }
    });
    ASSERT_EQ(system_call_init(), DBUS_OK);
    for (const size_t cut : {0, 1, 3, 4, 7, 100, 212, 1235}) {
        cutAt = cut;
        EXPECT_EQ(system_call("x", 100), DBUS_CALL_FAILED) << cut;
        cutAt = sizeof(SystemCallDbusMsg);
        EXPECT_EQ(system_call("x", 3000), 7) << cut;
    }
}

TEST_F(Dbus, LengthBeyondTheFieldIsBounded) {
    const HostileServer server([](int client) {
        SystemCallDbusMsg call = {};
        while (receive_call(client, &call)) {
            memset(call.data, '1', sizeof(call.data));
            call.ret = 5000;
            call.len = 0xFFFFFFFF;
            send(client, &call, sizeof(call), MSG_NOSIGNAL);
        }
    });
    ASSERT_EQ(system_call_init(), DBUS_OK);
    EXPECT_EQ(system_call("x", 3000), 2147483647);
    char output[1025];
    memset(output, '#', sizeof(output));
    EXPECT_EQ(popen_call("x", output, 5000, 3000), 5000);
    EXPECT_EQ(std::string(output, 1025), std::string(1024, '1') + '#');
}

TEST_F(Dbus, PeerThatStopsReadingCostsABoundedWait) {
    std::atomic<bool> done{false};
    const HostileServer server([&done](int) {
        while (!done) {
            std::this_thread::sleep_for(milliseconds(10));
        }
    });
    ASSERT_EQ(system_call_init(), DBUS_OK);
    CapturedOutput output;
    const auto start = steady_clock::now();
    int32_t result = DBUS_CALL_FAILED;
    for (int i = 0; i < 2000 && result == DBUS_CALL_FAILED; ++i) {
        result = call_dbus_method("system_call", "x", nullptr, 0, 1);
    }
    EXPECT_EQ(result, DBUS_WRITE_FAILED);
    EXPECT_LT(steady_clock::now() - start, milliseconds(8000));
    done = true;
}

TEST_F(Dbus, RebootIsAnnouncedByItsFirstWordOnly) {
    const Server server;
    ASSERT_EQ(system_call_init(), DBUS_OK);
    for (const char* cmd : {"reboot", "/sbin/reboot", "  reboot -f"}) {
        CapturedOutput output;
        system_call(cmd, 5000);
        const std::string expected =
            "[system_call:announce_reboot:#] reboot is caused by pid=" + std::to_string(getpid()) +
            " (dbus_test)\033[0m\n";
        EXPECT_NE(without_source_lines(output.take()).find(expected), std::string::npos) << cmd;
    }
    for (const char* cmd : {"rebooter", "echo reboot", "/bin/sh -c reboot", ""}) {
        CapturedOutput output;
        system_call(cmd, 5000);
        EXPECT_EQ(output.take().find("caused"), std::string::npos) << cmd;
    }
}

TEST_F(Dbus, PlantedLinkIsReplacedWithoutTouchingItsTarget) {
    write_file("/tmp/victim", "precious");
    ASSERT_EQ(symlink("/tmp/victim", SOCKET), 0);
    {
        const Server server;
        EXPECT_EQ(system_call_reboot_unlocked(), DBUS_OK);
        struct stat status = {};
        EXPECT_EQ(lstat(SOCKET, &status), 0);
        EXPECT_TRUE(S_ISSOCK(status.st_mode));
        remove(SOCKET);
        ASSERT_EQ(symlink("/tmp/victim", SOCKET), 0);  // planted while it serves
    }
    EXPECT_EQ(access(SOCKET, F_OK), 0);
    EXPECT_EQ(read_file("/tmp/victim"), "precious");
    EXPECT_EQ(system_call_reboot_unlocked(), DBUS_CONNECT_FAILED);
    remove(SOCKET);
    remove("/tmp/victim");
}

}  // namespace
