// The terminate handler: an error that nothing catches tells the alert
// listeners once (UncaughtFatalError), then the process aborts.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "Zub/Core/AlertManager.h"

namespace Zub {
namespace Core {
namespace {

std::atomic<bool> g_fatalReported{false};

void describe_uncaught() {
  std::exception_ptr current = std::current_exception();
  if (!current) {
    std::fputs("terminate called without an active exception\n", stderr);
    return;
  }
  try {
    std::rethrow_exception(current);
  } catch (const std::exception& e) {
    std::fputs("terminate called after an uncaught exception: ", stderr);
    std::fputs(e.what(), stderr);
    std::fputs("\n", stderr);
  } catch (...) {
    std::fputs("terminate called after an uncaught exception of unknown type\n", stderr);
  }
}

[[noreturn]] void fatal_terminate() {
  if (!g_fatalReported.exchange(true)) {
    describe_uncaught();
    try {
      AlertManager::Instance()->NotifyUncaughtFatalError();
    } catch (...) {
      std::fputs("an alert listener failed while handling an uncaught fatal error\n", stderr);
    }
  }
  std::fflush(nullptr);
  std::abort();
}

__attribute__((constructor)) void install_terminate_handler() { std::set_terminate(fatal_terminate); }

}  // namespace
}  // namespace Core
}  // namespace Zub
