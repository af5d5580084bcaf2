// Small loopback GETs through the background lookup worker with 1, 2 and 8
// slots, against the same requests made one after another on one reused
// HttpSession (the floor) and on a fresh connection each (what one worker
// request does), all measured in the same iterations.
// Targets: with 8 slots at least 3x the sequential rate; under 100 us of worker
// overhead per request (1 slot against fresh sequential requests).
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "dischive/http.h"
#include "dischive/lookup_worker.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRequests = 2000;
constexpr uint32_t kDone = 0x8600;

// Answers every GET with a short text after a little work a real server does
// (a 200 us pause stands for a lookup in its database).
class SmallServer {
 public:
  SmallServer() {
    server_.new_task_queue = [] { return new httplib::ThreadPool(16); };
    // The answer leaves in two writes (headers, body): without this a reused
    // connection waits for the client's delayed acknowledgement every time.
    server_.set_tcp_nodelay(true);
    server_.Get("/small", [](const httplib::Request&, httplib::Response& res) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
      res.set_content("210 rock 0a0b0c03 The Band / First Album\n.\n", "text/plain");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running())
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~SmallServer() {
    server_.stop();
    thread_.join();
  }
  int port() const { return port_; }

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = -1;
};

SmallServer& Server() {
  static SmallServer server;
  return server;
}

dischive::HttpRequest Request() {
  dischive::HttpRequest r;
  r.access_type = dischive::AccessType::kDirect;
  r.server = "127.0.0.1";
  r.port = static_cast<uint16_t>(Server().port());
  r.object = "/small";
  return r;
}

double SequentialSeconds(bool reuse) {
  const auto start = Clock::now();
  dischive::HttpSession session;
  for (int i = 0; i < kRequests; ++i) {
    dischive::HttpRequest r = Request();
    const dischive::HResult error =
        reuse ? dischive::ExecuteHttpRequest(r, session) : dischive::PerformHttpRequest(r);
    if (error != 0 || r.status_code != 200) std::abort();
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

class BenchRequest : public dischive::LookupRequest {
 public:
  BenchRequest(std::string url, std::shared_ptr<dischive::HostWindow> window, int& completed)
      : url_(std::move(url)), window_(std::move(window)), completed_(completed) {}
  void OnComplete() override {
    if (error != 0 || status_code != 200) std::abort();
    ++completed_;
  }
  std::string GetUrl() const override { return url_; }
  std::shared_ptr<dischive::HostWindow> GetOwnerWindow() const override { return window_; }
  uint32_t GetMessageId() const override { return kDone; }

 private:
  std::string url_;
  std::shared_ptr<dischive::HostWindow> window_;
  int& completed_;
};

double WorkerSeconds(int slots) {
  auto settings = std::make_shared<dischive::MemorySettingsStore>();
  settings->Write("internet2", "preconfig_http_proxy", "0");
  dischive::LookupWorker worker(0, "", slots, settings);
  auto window = std::make_shared<dischive::MessageLoop>(
      [&](const dischive::HostMessage& m) -> intptr_t { return worker.CompleteFromMessage(m); });
  const std::string url = "http://127.0.0.1:" + std::to_string(Server().port()) + "/small";
  int completed = 0;
  const auto start = Clock::now();
  for (int i = 0; i < kRequests; ++i) {
    std::unique_ptr<dischive::LookupRequest> request =
        std::make_unique<BenchRequest>(url, window, completed);
    worker.SubmitRequest(request);
  }
  while (!worker.IsWorkerIdle())
    window->pump(std::chrono::milliseconds(20));
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (completed != kRequests) std::abort();
  return seconds;
}

void BM_WorkerAgainstSequential(benchmark::State& state) {
  const int slots = static_cast<int>(state.range(0));
  double reused = 0, fresh = 0, worker = 0;
  for (auto _ : state) {
    reused += SequentialSeconds(true);
    fresh += SequentialSeconds(false);
    worker += WorkerSeconds(slots);
  }
  const double n = static_cast<double>(state.iterations()) * kRequests;
  state.counters["worker_req_per_s"] = n / worker;
  state.counters["sequential_req_per_s"] = n / reused;
  state.counters["fresh_req_per_s"] = n / fresh;
  state.counters["speedup_vs_sequential"] = reused / worker;
  if (slots == 1) state.counters["overhead_us_per_req"] = (worker - fresh) / n * 1e6;
}
BENCHMARK(BM_WorkerAgainstSequential)
    ->Arg(1)
    ->Arg(2)
    ->Arg(8)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
