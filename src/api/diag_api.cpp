// C entry points: crash reports.
#include "dhvapi.h"
#include "dischive/crash_report.h"

extern "C" void InstallCrashReporter(void** holder) {
  if (holder == nullptr) return;
  dischive::CrashHandlersHolder saved = dischive::InstallCrashReporter();
  // Installed again through the same holder: it keeps the handlers from before
  // the first installation, which are the ones to put back.
  if (*holder == nullptr) *holder = saved.release();
}

extern "C" void RemoveCrashReporter(void** holder) {
  if (holder == nullptr || *holder == nullptr) return;
  dischive::RemoveCrashReporter(
      dischive::CrashHandlersHolder(static_cast<dischive::SavedCrashHandlers*>(*holder)));
  *holder = nullptr;
}

extern "C" const char* GetCrashReportPath(void) {
  return dischive::CrashReportPath();
}
