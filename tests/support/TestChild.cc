// qwd_test_child: a monitored process for tests. It plays its role (the file
// name it was started under) from $QWD_CHILD_PLAN_DIR (default "."): launch N
// runs line N of "<role>.plan" (the last line once past the end), after
// adding its pid and arguments as a line to "<role>.launches". It connects
// to the role's socket and takes a line's steps in order:
//   hb               one heartbeat
//   beat             a heartbeat a second, for ever
//   fail             a failure notification ("planned failure")
//   pid N|parent     a heartbeat naming pid N or the watchdog's
//   sock NAME        later notifications name socket NAME
//   noise            a notification of 200 bytes of noise
//   cmd ID [U32...]  a command with those words as data
//   text ID [TEXT]   a command with TEXT as data (none when TEXT is absent)
//   exit N           ends with status N
//   ignore-term      SIGTERM is ignored (from before the connection)
//   spawn-grandchild forks a child that pauses for ever, its pid added to
//                    "<role>.grandchildren"
//   close            closes its connection and stays
//   wait             (the end of every line) waits for SIGTERM or SIGKILL
// Replies go to "<role>.replies" as "<id> <status> <first reply word>". The
// lines "half", "garbage", "big" and "hangup" alone send one raw request (see
// RawHeader) and wait for its reply; "flood N" sends N heartbeats and reads
// no reply; "never" waits without connecting.

#include <signal.h>
#include <unistd.h>

#include <poll.h>
#include <sys/socket.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/StringUtils.h"
#include "ipc/IpcChannel.h"
#include "ipc/UnixSocket.h"
#include "ipc/WatchdogProtocol.h"

namespace {

[[noreturn]] void WaitForSignal() {
  for (;;) pause();
}

void ExitOnTerm(int) { _exit(0); }

// The request that a raw line sends past the client: "half" announces data
// and sends none, "garbage" has a wrong magic, "big" a record larger than the
// watchdog takes, "hangup" announces data and ends the process. Null for
// any other line.
const IpcHeader* RawHeader(const std::string& plan) {
  static const IpcHeader kHalf{kIpcMagic, 8, 3};
  static const IpcHeader kGarbage{0x12345678, 0, 3};
  static const IpcHeader kBig{kIpcMagic, 4096, 3};
  if (plan == "half" || plan == "hangup") return &kHalf;
  if (plan == "garbage") return &kGarbage;
  return plan == "big" ? &kBig : nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  const char* planDir = std::getenv("QWD_CHILD_PLAN_DIR");
  const std::string role = std::strrchr(argv[0], '/') ? std::strrchr(argv[0], '/') + 1 : argv[0];
  const std::string base = std::string(planDir ? planDir : ".") + "/" + role;
  std::vector<std::string> lines;
  std::ifstream planFile(base + ".plan");
  for (std::string line; std::getline(planFile, line);) lines.push_back(line);
  size_t launch = 0;
  std::ifstream launches(base + ".launches");
  for (std::string line; std::getline(launches, line);) ++launch;
  std::string args;
  for (int i = 1; i < argc; ++i) args += std::string(" ") + argv[i];
  std::ofstream(base + ".launches", std::ios::app) << getpid() << args << std::endl;
  const std::string plan = lines.empty() ? "wait" : lines[std::min(launch, lines.size() - 1)];
  std::istringstream in(plan);
  const std::vector<std::string> steps{std::istream_iterator<std::string>(in), {}};

  signal(SIGTERM, plan.find("ignore-term") == std::string::npos ? ExitOnTerm : SIG_IGN);
  const char* socketName =
      role == "quillmorSystemExec" ? kSystemExecSocketName : kUserAgentSocketName;
  if (plan == "never") WaitForSignal();
  const IpcHeader* header = RawHeader(plan);
  if (header != nullptr || plan.rfind("flood ", 0) == 0) {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const sockaddr_un address = UnixSocket::MakeAddress(socketName);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return 3;
    const IpcHeader beat{kIpcMagic, sizeof(StatusNotification), 0};
    StatusNotification note{1, getpid(), {}, {}};
    SafeStrCopy(note.socketName, socketName);
    for (int i = header != nullptr ? 0 : std::atoi(steps[1].c_str()); i > 0; --i) {
      send(fd, &beat, sizeof(beat), 0);
      send(fd, &note, sizeof(note), 0);
    }
    if (header == nullptr) WaitForSignal();
    send(fd, header, sizeof(*header), 0);
    if (plan == "hangup") return 0;
    if (plan == "big") send(fd, std::string(header->length, 'x').data(), header->length, 0);
    IpcHeader reply{};
    pollfd entry{fd, POLLIN, 0};
    if (poll(&entry, 1, 5000) == 1 && recv(fd, &reply, sizeof(reply), 0) == sizeof(reply)) {
      std::ofstream(base + ".replies", std::ios::app) << "3 " << reply.commandOrStatus << " 0\n";
    }
    WaitForSignal();
  }
  std::unique_ptr<IpcChannel> channel = CreateIpcChannel(socketName, 0, 16, false);
  if (!channel || channel->Connect(false) != StatusCode::SUCCESS) return 3;
  StatusNotification note{};
  SafeStrCopy(note.socketName, socketName);
  SafeStrCopy(note.message, "planned failure");
  auto send = [&](int32_t id, const void* data, size_t size) {
    uint32_t reply = 0;
    const StatusCode status =
        channel->SendCommand(id, size ? data : nullptr, size, &reply, sizeof(reply), 10000);
    return std::to_string(id) + " " + std::to_string(static_cast<uint32_t>(status)) + " " +
           std::to_string(reply) + "\n";
  };
  auto notify = [&](int32_t pid, bool ok) {
    note.ok = ok ? 1 : 0;
    note.pid = pid;
    send(CommandId(WatchdogCommand::STATUS_NOTIFY), &note, sizeof(note));
  };
  static const std::set<std::string> kSteps = {"hb",  "beat", "fail", "pid",  "sock",       "noise",
                                               "cmd", "text", "exit", "wait", "ignore-term"};
  for (size_t i = 0; i < steps.size(); ++i) {
    const std::string& step = steps[i];
    if (step == "hb" || step == "fail") {
      notify(getpid(), step == "hb");
    } else if (step == "pid") {
      const std::string& pid = steps[++i];
      notify(pid == "parent" ? getppid() : std::atoi(pid.c_str()), true);
    } else if (step == "sock") {
      SafeStrCopy(note.socketName, steps[++i].c_str());
    } else if (step == "noise") {
      std::string noise(sizeof(StatusNotification), '\xA5');
      send(CommandId(WatchdogCommand::STATUS_NOTIFY), noise.data(), noise.size());
    } else if (step == "beat") {
      for (;;) {
        notify(getpid(), true);
        sleep(1);
      }
    } else if (step == "cmd" || step == "text") {
      const int32_t id = std::atoi(steps[++i].c_str());
      std::vector<uint32_t> words;
      while (step == "cmd" && i + 1 < steps.size() &&
             std::isdigit(static_cast<unsigned char>(steps[i + 1][0]))) {
        words.push_back(static_cast<uint32_t>(std::strtoul(steps[++i].c_str(), nullptr, 10)));
      }
      const bool hasText = i + 1 < steps.size() && kSteps.count(steps[i + 1]) == 0;
      const std::string text = step == "text" && hasText ? steps[++i] : "";
      std::ofstream(base + ".replies", std::ios::app)
          << (step == "cmd" ? send(id, words.data(), words.size() * 4)
                            : send(id, text.c_str(), text.empty() ? 0 : text.size() + 1));
    } else if (step == "exit") {
      return std::atoi(steps[++i].c_str());
    } else if (step == "spawn-grandchild") {
      const pid_t grandchild = fork();
      if (grandchild == 0) WaitForSignal();
      std::ofstream(base + ".grandchildren", std::ios::app) << grandchild << std::endl;
    } else if (step == "close") {
      channel.reset();
    }
  }
  WaitForSignal();
}
