// Queued work of the service: bakes on one job thread (each bake already
// uses every worker thread, so two at once would only share the cores), and
// mesh loads and object listings on the load threads, so a load never waits
// for a bake. Every job is known by its request's id while it is queued or
// running, and can be cancelled by it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kv::service {

struct Job {
  std::int64_t id = 0;
  std::string op;
  std::atomic<bool> cancel{false};
  // What the job's memory estimate came to, once it made one (its own thread
  // writes it, and reads it when the job fails).
  std::uint64_t need_bytes = 0;
  // Runs the work (writing its events) and returns its final reply line;
  // throws to end with an error reply instead.
  std::function<std::string(Job&)> run;
};

enum class JobLane { bake, load };

// Whether the runner starts its threads. Without them, jobs are accepted and
// held but never run, and go with the runner: a request can then be handled
// up to its immediate reply without doing its work (the request fuzzer).
enum class JobThreads { start, none };

class JobRunner {
 public:
  // `fail` makes the error reply of a job whose run threw; `write` writes a
  // final reply line.
  using FailFn = std::function<std::string(const Job&, std::exception_ptr)>;
  using WriteFn = std::function<void(const std::string&)>;
  JobRunner(int load_threads, FailFn fail, WriteFn write, JobThreads threads = JobThreads::start);
  ~JobRunner();  // stops the threads after the running jobs
  JobRunner(const JobRunner&) = delete;
  JobRunner& operator=(const JobRunner&) = delete;

  // Queues the job; false when a job of that id is still queued or running.
  bool submit(std::shared_ptr<Job> job, JobLane lane);
  // Sets the job's cancel flag; false when no such job is queued or running.
  bool cancel(std::int64_t id);
  void cancel_all();
  // Waits until every job wrote its final reply; false after timeout_ms.
  bool wait_idle(int timeout_ms);
  bool idle() const;
  // Whether a job of that id is queued or running.
  bool is_active(std::int64_t id) const;

 private:
  struct Lane {
    std::deque<std::shared_ptr<Job>> queue;
    std::vector<std::thread> threads;
  };
  void work(Lane& lane);
  void finish(const Job& job, const std::string& reply);

  FailFn fail_;
  WriteFn write_;
  std::size_t unfinished_ = 0;  // jobs whose final reply is not written yet
  mutable std::mutex lock_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::map<std::int64_t, std::shared_ptr<Job>> active_;
  Lane bake_;
  Lane load_;
  bool stopping_ = false;
};

}  // namespace kv::service
