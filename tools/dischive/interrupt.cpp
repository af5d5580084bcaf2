#include "interrupt.h"

#include <signal.h>

#include <csignal>

namespace dischive::cli {
namespace {

volatile std::sig_atomic_t g_interrupted = 0;
struct sigaction g_old_int {};
struct sigaction g_old_term {};

extern "C" void OnInterrupt(int) {
  g_interrupted = 1;
}

}  // namespace

InterruptGuard::InterruptGuard() {
  g_interrupted = 0;
  struct sigaction action {};
  action.sa_handler = &OnInterrupt;
  // A second Ctrl-C ends the program at once.
  action.sa_flags = SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, &g_old_int);
  sigaction(SIGTERM, &action, &g_old_term);
}

InterruptGuard::~InterruptGuard() {
  sigaction(SIGINT, &g_old_int, nullptr);
  sigaction(SIGTERM, &g_old_term, nullptr);
}

bool InterruptGuard::interrupted() {
  return g_interrupted != 0;
}

}  // namespace dischive::cli
