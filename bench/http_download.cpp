// Downloads a 256 MiB body from a loopback server through PerformHttpRequest
// and, in the same run, with the curl command-line tool; reports both
// throughputs and the transport's peak memory against the body size.
// Targets: at least 0.9x curl's throughput, peak memory under 1.1x the body.
#include <benchmark/benchmark.h>
#include <httplib.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "dischive/http.h"
#include "support/bench_support.h"

extern char** environ;

namespace {

constexpr size_t kBodySize = size_t{256} << 20;
constexpr size_t kChunk = size_t{1} << 20;

// Serves kBodySize bytes from one small buffer, so the server adds next to
// nothing to the process's memory.
class DownloadServer {
 public:
  DownloadServer() : chunk_(kChunk, 'x') {
    for (size_t i = 0; i < chunk_.size(); ++i)
      chunk_[i] = static_cast<char>(i * 7);
    server_.Get("/body", [this](const httplib::Request&, httplib::Response& res) {
      res.set_content_provider(kBodySize, "application/octet-stream",
                               [this](size_t offset, size_t length, httplib::DataSink& sink) {
                                 const size_t n = std::min({length, kChunk, kBodySize - offset});
                                 return sink.write(chunk_.data(), n);
                               });
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running())
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~DownloadServer() {
    server_.stop();
    thread_.join();
  }
  int port() const { return port_; }

 private:
  std::string chunk_;
  httplib::Server server_;
  std::thread thread_;
  int port_ = -1;
};

DownloadServer& Server() {
  static DownloadServer server;
  return server;
}

size_t StatusValue(const char* key) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::string prefix = key;
  while (std::getline(status, line)) {
    if (line.rfind(prefix, 0) == 0)
      return std::strtoull(line.c_str() + prefix.size(), nullptr, 10) * 1024;
  }
  return 0;
}

// Resets the peak resident size to the current one (Linux 4.0 and later).
void ResetPeak() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

double CpuSeconds(const timeval& t) {
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
}

double ThreadCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// Seconds the curl tool takes to fetch the body into `target` (its processor
// time in *cpu_seconds); < 0 on failure.
double TimeCurlTool(const std::string& url, const std::string& target, double* cpu_seconds) {
  pid_t pid = -1;
  const char* argv[] = {"curl", "-s", "--noproxy", "*", "-o", target.c_str(), url.c_str(), nullptr};
  const auto start = std::chrono::steady_clock::now();
  if (posix_spawnp(&pid, "curl", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
    return -1;
  }
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  *cpu_seconds = CpuSeconds(usage.ru_utime) + CpuSeconds(usage.ru_stime);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? seconds : -1;
}

// Seconds PerformHttpRequest takes; *peak_ratio is its peak memory growth over
// the body size. < 0 on failure.
double TimeTransport(double* peak_ratio, double* cpu_seconds) {
  dischive::HttpRequest request;
  request.access_type = dischive::AccessType::kDirect;
  request.server = "127.0.0.1";
  request.port = static_cast<uint16_t>(Server().port());
  request.object = "/body";
  request.max_body = kBodySize;
  const size_t before = StatusValue("VmRSS:");
  ResetPeak();
  const double cpu_start = ThreadCpuSeconds();
  const auto start = std::chrono::steady_clock::now();
  const dischive::HResult result = dischive::PerformHttpRequest(request);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  *cpu_seconds = ThreadCpuSeconds() - cpu_start;
  const size_t peak = dischive::bench::PeakResidentBytes();
  if (result != dischive::kOk || request.response_body.size() != kBodySize) return -1;
  *peak_ratio = static_cast<double>(peak - before) / kBodySize;
  return seconds;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The machine is shared, so the three downloads take turns in every round and
// the medians are compared: the curl tool discarding the body (/dev/null),
// the curl tool keeping it in memory (a file on the RAM file system, when
// there is one), and the transport.
void BM_HttpDownload(benchmark::State& state) {
  const std::string url = "http://127.0.0.1:" + std::to_string(Server().port()) + "/body";
  const std::string ram_file =
      "/dev/shm/dischive-bench-" + std::to_string(static_cast<long>(getpid()));
  const bool have_ram_fs = access("/dev/shm", W_OK) == 0;
  std::vector<double> curl_null, curl_ram, transport, curl_null_cpu, transport_cpu;
  double worst_peak = 0;
  for (auto _ : state) {
    for (int round = 0; round < 7; ++round) {
      double a_cpu = 0, b_cpu = 0, c_cpu = 0;
      const double a = TimeCurlTool(url, "/dev/null", &a_cpu);
      const double b = have_ram_fs ? TimeCurlTool(url, ram_file, &b_cpu) : 0;
      std::remove(ram_file.c_str());
      double peak = 0;
      const double c = TimeTransport(&peak, &c_cpu);
      if (a < 0 || b < 0 || c < 0) {
        state.SkipWithError("a download failed");
        return;
      }
      curl_null.push_back(a);
      if (have_ram_fs) curl_ram.push_back(b);
      transport.push_back(c);
      curl_null_cpu.push_back(a_cpu);
      transport_cpu.push_back(c_cpu);
      worst_peak = std::max(worst_peak, peak);
    }
  }
  const auto rate = [](double seconds) { return kBodySize / seconds / (1 << 20); };
  const double transport_rate = rate(Median(transport));
  state.counters["transport_MiB_s"] = transport_rate;
  state.counters["curl_null_MiB_s"] = rate(Median(curl_null));
  state.counters["vs_curl_null"] = transport_rate / rate(Median(curl_null));
  if (!curl_ram.empty()) {
    state.counters["curl_ram_MiB_s"] = rate(Median(curl_ram));
    state.counters["vs_curl_ram"] = transport_rate / rate(Median(curl_ram));
  }
  state.counters["peak_vs_body"] = worst_peak;
  // Processor time per download does not depend on how busy the machine is.
  state.counters["curl_null_cpu_ms"] = Median(curl_null_cpu) * 1000;
  state.counters["transport_cpu_ms"] = Median(transport_cpu) * 1000;
}

}  // namespace

BENCHMARK(BM_HttpDownload)
    ->Name("http_download/256MiB")
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
