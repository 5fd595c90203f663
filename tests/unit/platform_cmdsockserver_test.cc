#include "platform/cmdsockserver.h"

#include "tests/unit/platform_support.h"

namespace {

constexpr sockaddr_un kSocket = {AF_UNIX, "/var/run/em/cmd.77"};
const sockaddr* const kAddress = reinterpret_cast<const sockaddr*>(&kSocket);
const std::string kStatus = "\x0D\x0C\x0B\x0A", kEcho = "\x04\x03\x02\x01";

uint32_t test_handler(uint32_t type, const uint8_t* message, uint32_t size, CmdRsp* rsp) {
  if (type == 0x01020304) cmd_rsp_attach_payload(message, size, rsp);
  return 0x0A0B0C0D;
}

struct Client {
  ~Client() {
    close(fd);
  }
  std::string receive() const {
    std::string packet(100000, '\0');
    const ssize_t size = recv(fd, packet.data(), packet.size(), 0);
    return size <= 0 ? "(closed)" : packet.substr(0, static_cast<size_t>(size));
  }
  std::string ask(const std::string& packet) const {
    send(fd, packet.data(), packet.size(), MSG_NOSIGNAL);
    return receive();
  }
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const bool connected = connect(fd, kAddress, sizeof kSocket) == 0;
};

}  // namespace

TEST(CmdServer, AnswersByteByByteAndRefusesBadPacketsAndOthers) {
  mkdir("/var/run/em", 0755);
  const int stale = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  ASSERT_EQ(bind(stale, kAddress, sizeof kSocket), 0);
  close(stale);
  CmdServer* server = cmd_server_create(77, test_handler);
  ASSERT_NE(server, nullptr) << strerror(errno);
  ASSERT_EQ(cmd_server_start(server), 0);
  const std::string large(64 * 1024, 'm');
  const Client good;
  for (const auto& [request, answer] : std::vector<std::pair<std::string, std::string>>{
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
  EXPECT_EQ(cmd_server_create(77, test_handler), nullptr) << "it is listened on";
  write_file("/var/run/em/cmd.78", "precious");
  EXPECT_EQ(cmd_server_create(78, test_handler), nullptr);
  EXPECT_EQ(read_file("/var/run/em/cmd.78"), "precious");
  cmd_server_shutdown(server);
  pthread_join(server->thread, nullptr);
  EXPECT_EQ(good.receive(), "(closed)");
  EXPECT_FALSE(exists(kSocket.sun_path));
}
