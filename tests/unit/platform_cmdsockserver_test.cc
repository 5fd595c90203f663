#include "platform/cmdsockserver.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <semaphore>

#include "platform_support.h"

namespace {

constexpr sockaddr_un kSocket = {AF_UNIX, "/var/run/em/cmd.77"};
const sockaddr* const kAddress = reinterpret_cast<const sockaddr*>(&kSocket);
const std::string kStatus = "\x0D\x0C\x0B\x0A";
const std::string kEcho = "\x04\x03\x02\x01";
const std::string kBlock("\x04\0\0\0", 4);

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
    // A stale socket, which is replaced.
    mkdir("/var/run/em", 0755);
    const int dead = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    ASSERT_EQ(bind(dead, kAddress, sizeof kSocket), 0);
    close(dead);
    server_ = cmd_server_create(77, test_handler);
    ASSERT_NE(server_, nullptr) << strerror(errno);
    open_before_ = names_in("/proc/self/fd").size();
    ASSERT_EQ(cmd_server_start(server_), 0);
  }

  void TearDown() override {
    stop();
    // All that is gone is the listener: no connection of the server's is left.
    EXPECT_EQ(names_in("/proc/self/fd").size(), open_before_ - 1);
    EXPECT_FALSE(exists(kSocket.sun_path));
  }

  void stop() {
    cmd_server_shutdown(server_);
    if (!std::exchange(stopped_, true)) pthread_join(server_->thread, nullptr);
  }

  CmdServer* server_ = nullptr;
  size_t open_before_ = 0;
  bool stopped_ = false;
};

TEST_F(CmdServerTest, AnswersByteByByteAndABadPacketEndsItsOwnConnectionOnly) {
  const std::string large(64 * 1024, 'm');
  const std::pair<std::string, std::string> cases[] = {
      {kEcho + "text", kStatus + "text"},
      {kEcho, kStatus},
      {kEcho + large, kStatus + large},
      {std::string("\3\0\0\0ignored", 11), kStatus},
      {"", "(closed)"},
      {"123", "(closed)"},
      {kEcho + large + "1", "(closed)"},
  };
  const Client good;
  for (const auto& [request, answer] : cases) {
    EXPECT_EQ(Client().ask(request), answer) << request.size();
    EXPECT_EQ(good.ask(kEcho + "text"), kStatus + "text");
  }
}

TEST_F(CmdServerTest, OtherUsersAndASecondServerAreRefused) {
  EXPECT_EQ(mode_of(kSocket.sun_path), 0600);
  chmod(kSocket.sun_path, 0666);  // so that only the server's own check is left
  EXPECT_EQ(run_forked([] { return setuid(65534) == 0 && Client().ask(kEcho) == "(closed)"; }), 1);

  EXPECT_EQ(cmd_server_create(77, test_handler), nullptr);
  EXPECT_EQ(errno, EADDRINUSE);
  EXPECT_EQ(Client().ask(kEcho), kStatus);
  write_file("/var/run/em/cmd.78", "precious");
  EXPECT_EQ(cmd_server_create(78, test_handler), nullptr);
  EXPECT_EQ(read_file("/var/run/em/cmd.78"), "precious");
}

TEST_F(CmdServerTest, ServesAtMost256ConnectionsAtOnce) {
  {
    const std::vector<Client> clients(300);
    for (size_t i = 0; i < clients.size(); ++i)
      EXPECT_EQ(clients[i].ask(kEcho), i < 256 ? kStatus : "(closed)") << i;
  }
  // The places come back; the server may need a moment to see that the clients are gone.
  while (Client().ask(kEcho) != kStatus) {
  }
}

TEST_F(CmdServerTest, ShutdownEndsIdleConnectionsAndLetsCallsAnswer) {
  const Client silent, idle, busy;
  Client().send(kBlock);  // gone before its answer
  g_entered.acquire();
  busy.send(kBlock);
  g_entered.acquire();
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

TEST_F(CmdServerTest, StuckCallDoesNotHoldTheEndForEver) {
  const Client stuck;
  stuck.send(kBlock);
  g_entered.acquire();
  const auto begun = std::chrono::steady_clock::now();
  stop();
  EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
  EXPECT_EQ(stuck.receive(MSG_DONTWAIT), "(nothing yet)");
  // It may still answer as long as the process lives.
  g_release.release();
  EXPECT_EQ(stuck.receive(), kStatus);
  EXPECT_EQ(stuck.receive(), "(closed)");
}

}  // namespace
