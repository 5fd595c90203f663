#include "platform/cmdsockserver.h"

#include <semaphore>

#include "platform/util.h"
#include "tests/unit/platform_support.h"

namespace {

constexpr sockaddr_un kSocket = {AF_UNIX, "/var/run/em/cmd.77"};
const sockaddr* const kAddress = reinterpret_cast<const sockaddr*>(&kSocket);
const std::string kStatus = "\x0D\x0C\x0B\x0A", kEcho = "\x04\x03\x02\x01", kBlock("\x04\0\0\0", 4);

std::counting_semaphore<> g_entered{0};  // one for each blocking call that has begun
std::counting_semaphore<> g_release{0};  // one for each blocking call that may end

uint32_t test_handler(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp) {
  if (type == 0x01020304) cmd_rsp_attach_payload(message, size, rsp);
  if (type == 4) {
    g_entered.release();
    g_release.acquire();
  }
  return 0x0A0B0C0D;
}

struct Client {
  ~Client() {
    close(fd);
  }
  void send(const std::string& packet) const {
    ::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL);
  }
  void block() const {
    send(kBlock);
    g_entered.acquire();
  }
  std::string receive(int flags = 0) const {
    std::string packet(100000, '\0');
    const ssize_t size = recv(fd, packet.data(), packet.size(), flags);
    if (size < 0 && errno == EAGAIN) return "(nothing yet)";
    return size <= 0 ? "(closed)" : packet.substr(0, static_cast<size_t>(size));
  }
  std::string ask(const std::string& packet) const {
    send(packet);
    return receive();
  }
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const bool connected = connect(fd, kAddress, sizeof kSocket) == 0;
};

class CmdServerTest : public testing::Test {
 protected:
  void SetUp() override {
    mkdir("/var/run/em", 0755);
    const int stale = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    ASSERT_EQ(bind(stale, kAddress, sizeof kSocket), 0);
    close(stale);
    server_ = cmd_server_create(77, test_handler);
    ASSERT_NE(server_, nullptr) << strerror(errno);
    open_before_ = names_in("/proc/self/fd").size();
    ASSERT_EQ(cmd_server_start(server_), 0);
  }

  void TearDown() override {
    cmd_server_shutdown(server_);
    pthread_join(server_->thread, nullptr);
    // All that is gone is the listener: no connection of the server's is left.
    EXPECT_EQ(names_in("/proc/self/fd").size(), open_before_ - 1);
    EXPECT_FALSE(exists(kSocket.sun_path));
  }

  static inline CmdServer* server_ = nullptr;  // it is never freed
  size_t open_before_ = 0;
};

}  // namespace

TEST_F(CmdServerTest, AnswersByteByByteAndRefusesBadPacketsAndOthers) {
  const std::string large(64 * 1024, 'm');
  const Client good;
  for (const auto& [request, answer] : std::vector<std::pair<std::string, std::string>>{
           {kEcho + "text", kStatus + "text"},
           {kEcho, kStatus},
           {kEcho + large, kStatus + large},
           {std::string("\3\0\0\0ignored", 11), kStatus},
           {"", "(closed)"},
           {"123", "(closed)"},
           {kEcho + large + "1", "(closed)"}}) {
    EXPECT_EQ(Client().ask(request), answer) << request.size();
    EXPECT_EQ(good.ask(kEcho + "text"), kStatus + "text");
  }
  EXPECT_EQ(mode_of(kSocket.sun_path), 0600);
  chmod(kSocket.sun_path, 0666);  // so that only the server's own check is left
  EXPECT_EQ(run_forked([] { return setuid(65534) == 0 && Client().ask(kEcho) == "(closed)"; }), 1);
  testing::internal::CaptureStdout();
  debug_log_to_stdout(1);
  EXPECT_EQ(cmd_server_create(77, test_handler), nullptr);
  debug_log_to_stdout(0);
  EXPECT_TRUE(testing::internal::GetCapturedStdout().ends_with(
      ": Could not create command socket '/var/run/em/cmd.77': Address already in use\n"));
  write_file("/var/run/em/cmd.78", "precious");
  EXPECT_EQ(cmd_server_create(78, test_handler), nullptr);
  EXPECT_EQ(read_file("/var/run/em/cmd.78"), "precious");
}

TEST_F(CmdServerTest, ShutdownEndsIdleConnectionsAndLetsCallsAnswer) {
  const Client silent, idle, busy;
  Client().block();  // gone before its answer
  busy.block();
  busy.send(kEcho);  // not begun at shutdown: not answered
  EXPECT_EQ(idle.ask(kEcho), kStatus);
  cmd_server_shutdown(server_);
  EXPECT_EQ(silent.receive(), "(closed)");
  EXPECT_EQ(idle.receive(), "(closed)");
  EXPECT_FALSE(Client().connected);
  EXPECT_EQ(busy.receive(MSG_DONTWAIT), "(nothing yet)");
  g_release.release(2);
  EXPECT_EQ(busy.receive(), kStatus);
  EXPECT_EQ(busy.receive(), "(closed)");
}
