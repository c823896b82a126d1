#include <malloc.h>
#include <openssl/crypto.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "platform/Foundation.hpp"
#include "platform/linux/Host.hpp"

// GnuTLS calls this when it is loaded: the program that defines it wants no initialisation.
extern "C" __attribute__((visibility("default"))) int _gnutls_global_init_skip() {
  return 1;
}

namespace vornet::platform {

void exitProcess(int status) {
  std::exit(status);
}

void systemLog(std::string_view message) {
  const int length = static_cast<int>(message.size());
  ::syslog(LOG_USER | LOG_NOTICE, "%.*s", length, message.data());
  std::fprintf(stderr, "%s[%d]: %.*s\n", program_invocation_short_name, static_cast<int>(::getpid()), length,
               message.data());
}

void systemLogFatal(std::string_view reason) noexcept {
  ::syslog(LOG_USER | LOG_CRIT, "Fatal error: %.*s", static_cast<int>(reason.size()), reason.data());
}

void host::keepLittleFreeMemory() {
  // By default the allocator derives both from the largest block ever freed.
  ::mallopt(M_MMAP_THRESHOLD, 1 << 17);
  ::mallopt(M_TRIM_THRESHOLD,
            1 << 18);  // each of the threads' arenas keeps as much, which malloc_trim does not return
}

void host::declineTLS() {
  // Of these OpenSSL loads nothing from now on, although libcurl asks for them.
  ::OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS | OPENSSL_INIT_NO_LOAD_CONFIG |
                            OPENSSL_INIT_NO_ADD_ALL_CIPHERS | OPENSSL_INIT_NO_ADD_ALL_DIGESTS,
                        nullptr);
}

void host::giveFreeMemoryBack() {
  ::malloc_trim(0);
}

std::string processName() {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? program_invocation_short_name : program.filename().string();
}

std::int64_t processIdentifier() noexcept {
  return ::getpid();
}

AutoreleasePool::AutoreleasePool() : pool_(nullptr) {}
AutoreleasePool::~AutoreleasePool() {
  (void)pool_;
}

}  // namespace vornet::platform
