#include "platform/cmdsockserver.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <atomic>
#include <semaphore>
#include <thread>
#include <vector>

#include "platform_support.h"

namespace {

constexpr int kNumber = 77;
constexpr char kSocketPath[] = "/var/run/em/cmd.77";
constexpr uint32_t kEcho = 0x01020304;
constexpr uint32_t kAttachTwice = 2;
constexpr uint32_t kNoPayload = 3;
constexpr uint32_t kBlock = 4;

std::atomic<int> g_calls{0};
std::counting_semaphore<> g_entered{0};  // one for each blocking call that has begun
std::counting_semaphore<> g_release{0};  // one for each blocking call that may end

uint32_t test_handler(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp) {
  ++g_calls;
  if (type == kAttachTwice) cmd_rsp_attach_payload("replaced", 8, rsp);
  if (type == kEcho || type == kAttachTwice) cmd_rsp_attach_payload(message, size, rsp);
  if (type == kBlock) {
    g_entered.release();
    g_release.acquire();
  }
  return type == kNoPayload ? 0xFFFFFFFE : 0x0A0B0C0D;
}

int connect_client() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, kSocketPath);
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}

bool send_packet(int fd, const std::string& packet) {
  return send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(packet.size());
}

// The next packet; "(closed)" when the server has closed the connection.
std::string receive_packet(int fd, int flags = 0) {
  std::string packet(100000, '\0');
  const ssize_t size = recv(fd, packet.data(), packet.size(), flags);
  if (size == 0 || (size < 0 && errno != EAGAIN)) return "(closed)";
  return size < 0 ? "(nothing yet)" : packet.substr(0, static_cast<size_t>(size));
}

std::string ask(int fd, const std::string& packet) {
  return send_packet(fd, packet) ? receive_packet(fd) : "(closed)";
}

const std::string kEchoRequest = std::string("\x04\x03\x02\x01", 4) + "text";
const std::string kEchoAnswer = std::string("\x0D\x0C\x0B\x0A", 4) + "text";
const std::string kBlockRequest("\x04\0\0\0", 4);
const std::string kBlockAnswer("\x0D\x0C\x0B\x0A", 4);

class CmdServerTest : public testing::Test {
 protected:
  void SetUp() override {
    server_ = cmd_server_create(kNumber, test_handler);
    ASSERT_NE(server_, nullptr) << strerror(errno);
    open_before_ = names_in("/proc/self/fd").size();
    ASSERT_EQ(cmd_server_start(server_), 0);
    running_ = true;
  }

  void TearDown() override {
    stop();
    // All that is gone is the listener: no connection of the server's is left.
    EXPECT_EQ(names_in("/proc/self/fd").size(), open_before_ - 1);
    EXPECT_FALSE(exists(kSocketPath));
  }

  void stop() {
    if (running_) {
      cmd_server_shutdown(server_);
      pthread_join(server_->thread, nullptr);
      running_ = false;
    }
  }

  CmdServer* server_ = nullptr;
  size_t open_before_ = 0;
  bool running_ = false;
};

TEST_F(CmdServerTest, AnswersByteByByteOnOneConnection) {
  const std::string large(64 * 1024, 'm');
  const struct {
    std::string request;
    std::string answer;
  } cases[] = {
      {kEchoRequest, kEchoAnswer},
      {kEchoRequest.substr(0, 4), kEchoAnswer.substr(0, 4)},
      {kEchoRequest.substr(0, 4) + large, kEchoAnswer.substr(0, 4) + large},
      {std::string("\2\0\0\0\0\n", 6), kEchoAnswer.substr(0, 4) + std::string("\0\n", 2)},
      {std::string("\3\0\0\0ignored", 11), "\xFE\xFF\xFF\xFF"},
      {kEchoRequest, kEchoAnswer},
  };
  const int fd = connect_client();
  for (const auto& c : cases)
    EXPECT_EQ(ask(fd, c.request), c.answer);
  close(fd);
}

TEST_F(CmdServerTest, BadPacketEndsItsOwnConnectionOnly) {
  const int good = connect_client();
  g_calls = 0;
  for (const size_t size : {0u, 1u, 3u, 4u + 64 * 1024 + 1, 90000u}) {
    const int bad = connect_client();
    EXPECT_EQ(ask(bad, std::string(size, '\1')), "(closed)") << size;
    close(bad);
  }
  EXPECT_EQ(g_calls, 0);
  EXPECT_EQ(ask(good, kEchoRequest), kEchoAnswer);
  close(good);
}

TEST_F(CmdServerTest, OtherUsersAreRefused) {
  EXPECT_EQ(mode_of(kSocketPath), 0600);
  chmod(kSocketPath, 0666);  // so that only the server's own check is left
  g_calls = 0;
  const pid_t pid = fork();
  if (pid == 0)
    _exit(setuid(65534) == 0 && ask(connect_client(), kEchoRequest) == "(closed)" ? 0 : 1);
  int status = -1;
  waitpid(pid, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(g_calls, 0);
}

TEST_F(CmdServerTest, ServesAtMost256ConnectionsAtOnce) {
  std::vector<int> clients;
  for (int i = 0; i < 300; ++i)
    clients.push_back(connect_client());
  for (size_t i = 0; i < clients.size(); ++i)
    EXPECT_EQ(ask(clients[i], kEchoRequest), i < 256 ? kEchoAnswer : "(closed)") << i;
  for (const int fd : clients)
    close(fd);
  // The places come back; the server may need a moment to see that the clients are gone.
  std::string answer;
  while (answer != kEchoAnswer) {
    const int fd = connect_client();
    answer = ask(fd, kEchoRequest);
    close(fd);
  }
}

TEST_F(CmdServerTest, CallsRunAtOnceAndAVanishedCallerHurtsNobody) {
  std::vector<int> clients;
  for (int i = 0; i < 120; ++i) {
    clients.push_back(connect_client());
    ASSERT_TRUE(send_packet(clients.back(), kBlockRequest));
  }
  for (size_t i = 0; i < clients.size(); ++i)
    g_entered.acquire();
  const int other = connect_client();
  EXPECT_EQ(ask(other, kEchoRequest), kEchoAnswer);
  for (size_t i = 0; i < clients.size() / 2; ++i)
    close(clients[i]);
  g_release.release(120);
  for (size_t i = clients.size() / 2; i < clients.size(); ++i) {
    EXPECT_EQ(receive_packet(clients[i]), kBlockAnswer);
    close(clients[i]);
  }
  EXPECT_EQ(ask(other, kEchoRequest), kEchoAnswer);
  close(other);
}

TEST_F(CmdServerTest, ComingAndGoingFromManyThreads) {
  std::atomic<int> answered{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&answered] {
      for (int round = 0; round < 50; ++round) {
        const int fd = connect_client();
        answered += ask(fd, kEchoRequest) == kEchoAnswer;
        if (round % 2 == 0) send_packet(fd, kEchoRequest);  // gone before the answer
        close(fd);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(answered, 8 * 50);
}

TEST_F(CmdServerTest, ShutdownEndsIdleConnectionsAndLetsCallsAnswer) {
  const int silent = connect_client();
  const int idle = connect_client();
  EXPECT_EQ(ask(idle, kEchoRequest), kEchoAnswer);
  const int busy = connect_client();
  ASSERT_TRUE(send_packet(busy, kBlockRequest));
  ASSERT_TRUE(send_packet(busy, kEchoRequest));  // not begun at shutdown: not answered
  g_entered.acquire();

  cmd_server_shutdown(server_);
  EXPECT_EQ(receive_packet(silent), "(closed)");
  EXPECT_EQ(receive_packet(idle), "(closed)");
  EXPECT_EQ(connect_client(), -1);
  EXPECT_EQ(receive_packet(busy, MSG_DONTWAIT), "(nothing yet)");
  g_release.release();
  EXPECT_EQ(receive_packet(busy), kBlockAnswer);
  pthread_join(server_->thread, nullptr);
  running_ = false;
  EXPECT_EQ(receive_packet(busy), "(closed)");
  for (const int fd : {silent, idle, busy})
    close(fd);
}

TEST_F(CmdServerTest, StuckCallDoesNotHoldTheEndForEver) {
  const int stuck = connect_client();
  ASSERT_TRUE(send_packet(stuck, kBlockRequest));
  g_entered.acquire();
  stop();
  EXPECT_EQ(receive_packet(stuck, MSG_DONTWAIT), "(nothing yet)");
  // It may still answer as long as the process lives.
  g_release.release();
  EXPECT_EQ(receive_packet(stuck), kBlockAnswer);
  EXPECT_EQ(receive_packet(stuck), "(closed)");
  close(stuck);
}

TEST_F(CmdServerTest, SocketInUseIsNotTaken) {
  EXPECT_EQ(cmd_server_create(kNumber, test_handler), nullptr);
  EXPECT_EQ(errno, EADDRINUSE);
  const int fd = connect_client();
  EXPECT_EQ(ask(fd, kEchoRequest), kEchoAnswer);
  close(fd);
}

TEST(CmdServerCreate, ReplacesAStaleSocketButNoOtherFile) {
  mkdir("/var/run/em", 0755);
  const sockaddr_un address = {AF_UNIX, "/var/run/em/cmd.77"};
  const int dead = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  ASSERT_EQ(bind(dead, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  close(dead);
  CmdServer* server = cmd_server_create(kNumber, test_handler);
  ASSERT_NE(server, nullptr) << strerror(errno);
  ASSERT_EQ(cmd_server_start(server), 0);
  cmd_server_shutdown(server);
  pthread_join(server->thread, nullptr);

  write_file(kSocketPath, "precious");
  EXPECT_EQ(cmd_server_create(kNumber, test_handler), nullptr);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(read_file(kSocketPath), "precious");
  unlink(kSocketPath);
}

}  // namespace
