#include "Status.hpp"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <glib.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <string_view>
#include <utility>

#include "dbus/GLibPtr.hpp"
#include "dbus/Interface.hpp"

namespace vornet::vi {

// --- The sync application --------------------------------------------------------------------------------------------

namespace {

constexpr long LIMIT_MILLISECONDS = 3000;
constexpr const char* COMMAND = "/get_icons_for_folder";
constexpr const char* BODY = R"({"dir_name":"/"})";

struct EasyCleanup {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct ListCleanup {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

struct FileCleanup {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

/// As the tables of sockets write it: in words of eight digits, each in the machine's own order of bytes.
std::string tableWord(std::uint32_t word) {
  std::array<char, 9> text{};
  std::snprintf(text.data(), text.size(), "%08X", htonl(word));
  return text.data();
}

/// The user of the socket that listens on `address`, in the tables' form, and `port`.
std::optional<uid_t> userInTable(const char* table, const std::string& address, std::uint16_t port) {
  const std::unique_ptr<std::FILE, FileCleanup> file{std::fopen(table, "re")};
  std::array<char, 512> line{};
  while (file && std::fgets(line.data(), line.size(), file.get()) != nullptr) {
    std::array<char, 33> local{};
    unsigned localPort = 0;
    unsigned state = 0;
    unsigned user = 0;
    if (std::sscanf(line.data(), "%*u: %32[0-9A-F]:%x %*[0-9A-F]:%*x %x %*x:%*x %*x:%*x %*x %u", local.data(),
                    &localPort, &state, &user) == 4 &&
        address == local.data() && localPort == port && state == TCP_LISTEN) {
      return user;
    }
  }
  return std::nullopt;
}

std::size_t dropBody(char*, std::size_t size, std::size_t count, void*) {
  return size * count;
}

}  // namespace

std::optional<uid_t> listeningUser(std::uint16_t port) {
  const std::string none = tableWord(0);
  const std::string mapped = none + none + tableWord(0xFFFF);
  // In the order in which the system prefers them.
  for (const auto& [table, address] : {
           std::pair{"/proc/net/tcp", tableWord(INADDR_LOOPBACK)},
           std::pair{"/proc/net/tcp6", mapped + tableWord(INADDR_LOOPBACK)},
           std::pair{"/proc/net/tcp", none},
           std::pair{"/proc/net/tcp6", mapped + none},
           std::pair{"/proc/net/tcp6", none + none + none + none},
       }) {
    if (const auto user = userInTable(table, address, port)) return user;
  }
  return std::nullopt;
}

SyncApplicationState askSyncApplication(const std::string& address) {
  SyncApplicationState state;
  const auto port = static_cast<std::uint16_t>(std::stoul(address.substr(address.rfind(':') + 1)));
  const uid_t listening = listeningUser(port).value_or(geteuid());
  if (listening != 0 && listening != geteuid()) {
    state.outcome = SyncApplicationState::Outcome::anotherUser;
    state.user = listening;
    return state;
  }
  const std::unique_ptr<CURL, EasyCleanup> handle{curl_easy_init()};
  const std::unique_ptr<curl_slist, ListCleanup> headers{curl_slist_append(nullptr, "Content-Type: application/json")};
  if (!handle || !headers) {
    state.problem = "out of memory";
    return state;
  }
  const std::string url = "http://" + address + COMMAND;
  curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, BODY);
  curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT_MS, LIMIT_MILLISECONDS);
  curl_easy_setopt(handle.get(), CURLOPT_PROXY, "");
  curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, dropBody);
  const CURLcode code = curl_easy_perform(handle.get());

  double seconds = 0;
  curl_easy_getinfo(handle.get(), CURLINFO_TOTAL_TIME, &seconds);
  state.milliseconds = seconds * 1000;
  curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &state.httpStatus);
  switch (code) {
    case CURLE_OK:
      state.outcome = SyncApplicationState::Outcome::answers;
      break;
    case CURLE_COULDNT_CONNECT:
      state.outcome = SyncApplicationState::Outcome::refused;
      break;
    case CURLE_OPERATION_TIMEDOUT:
      state.outcome = SyncApplicationState::Outcome::timedOut;
      break;
    default:
      state.problem = curl_easy_strerror(code);
      break;
  }
  if (state.outcome != SyncApplicationState::Outcome::answers) state.httpStatus = 0;
  return state;
}

std::string sinceText(std::int64_t time) {
  if (time <= 0) return "";
  const std::unique_ptr<GDateTime, decltype(&g_date_time_unref)> date(g_date_time_new_from_unix_local(time),
                                                                      g_date_time_unref);
  const GCharPtr text(date ? g_date_time_format(date.get(), " since %F %T") : nullptr);
  return text ? text.get() : "";
}

std::string silenceSince(std::int64_t time) {
  return "the sync application has not answered" + sinceText(time);
}

std::optional<std::string> silenceIn(const ExtensionInfo& info) {
  if (!info.silentSince || *info.silentSince == dbus::ANSWERS) return std::nullopt;
  if (*info.silentSince != dbus::NOT_ASKED) return silenceSince(*info.silentSince);
  if (askSyncApplication().outcome == SyncApplicationState::Outcome::answers) return std::nullopt;
  return std::string("the sync application does not answer on ") + SYNC_APPLICATION_ADDRESS;
}

// --- Why the extension stopped ---------------------------------------------------------------------------------------

namespace {

constexpr const char* LOG_BELOW_CONTAINERS = "/com.vornet.KelvaneSync/log/vi.log";
/// Precedes the reason in the last line that the extension logs.
constexpr std::string_view MARK = " [Severe] : Fatal error: ";
constexpr off_t TAIL_BYTES = 16 * 1024;

std::string absoluteFolderFrom(const char* variable) {
  const char* value = g_getenv(variable);
  return value && *value == '/' ? value : "";
}

/// Where the extension's log is when the extension itself cannot be asked.
std::string logFile() {
  std::string containers = absoluteFolderFrom("VORNET_GROUP_CONTAINERS");
  if (containers.empty()) {
    std::string data = absoluteFolderFrom("XDG_DATA_HOME");
    if (data.empty()) data = std::string(g_get_home_dir()) + "/.local/share";
    containers = data + "/group-containers";
  }
  return containers + LOG_BELOW_CONTAINERS;
}

/// The last bytes of the regular file at `path`; empty when it cannot be read.
std::string tailOf(const std::string& path) {
  std::string tail;
  const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);  // a FIFO would make it wait
  if (file < 0) return tail;
  struct stat kind{};
  if (fstat(file, &kind) == 0 && S_ISREG(kind.st_mode)) {
    tail.resize(static_cast<std::size_t>(std::min(kind.st_size, TAIL_BYTES)));
    const auto count = pread(file, tail.data(), tail.size(), std::max<off_t>(kind.st_size - TAIL_BYTES, 0));
    tail.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  }
  close(file);
  return tail;
}

}  // namespace

std::optional<std::string> lastStopReason() {
  const std::string tail = tailOf(logFile());
  // Other threads may have logged a line more before the process was gone.
  const auto mark = tail.rfind(MARK);
  if (mark == std::string::npos) return std::nullopt;
  const auto start = mark + MARK.size();
  return tail.substr(start, tail.find('\n', start) - start);
}

}  // namespace vornet::vi
