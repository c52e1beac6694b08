#include "service/job_runner.h"

#include <chrono>

#include "platform/platform.h"

namespace kv::service {

JobRunner::JobRunner(int load_threads, FailFn fail, WriteFn write, JobThreads threads)
    : fail_(std::move(fail)), write_(std::move(write)) {
  if (threads == JobThreads::none) {
    return;
  }
  bake_.threads.emplace_back([this] { work(bake_); });
  for (int i = 0; i < load_threads; ++i) {
    load_.threads.emplace_back([this] { work(load_); });
  }
}

JobRunner::~JobRunner() {
  {
    std::lock_guard guard(lock_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (Lane* lane : {&bake_, &load_}) {
    for (std::thread& thread : lane->threads) {
      thread.join();
    }
  }
}

bool JobRunner::submit(std::shared_ptr<Job> job, JobLane lane) {
  {
    std::lock_guard guard(lock_);
    if (active_.count(job->id) != 0) {
      return false;
    }
    active_[job->id] = job;
    ++unfinished_;
    (lane == JobLane::bake ? bake_ : load_).queue.push_back(std::move(job));
  }
  wake_.notify_all();
  return true;
}

bool JobRunner::cancel(std::int64_t id) {
  std::lock_guard guard(lock_);
  const auto it = active_.find(id);
  if (it == active_.end()) {
    return false;
  }
  it->second->cancel = true;
  return true;
}

void JobRunner::cancel_all() {
  std::lock_guard guard(lock_);
  for (auto& [id, job] : active_) {
    job->cancel = true;
  }
}

bool JobRunner::wait_idle(int timeout_ms) {
  std::unique_lock guard(lock_);
  return idle_.wait_for(guard, std::chrono::milliseconds(timeout_ms),
                        [this] { return unfinished_ == 0; });
}

bool JobRunner::idle() const {
  std::lock_guard guard(lock_);
  return unfinished_ == 0;
}

bool JobRunner::is_active(std::int64_t id) const {
  std::lock_guard guard(lock_);
  return active_.count(id) != 0;
}

void JobRunner::work(Lane& lane) {
  // Job threads yield to the client application.
  platform::lower_thread_priority();
  for (;;) {
    std::shared_ptr<Job> job;
    {
      std::unique_lock guard(lock_);
      wake_.wait(guard, [&] { return stopping_ || !lane.queue.empty(); });
      if (lane.queue.empty()) {
        return;
      }
      job = std::move(lane.queue.front());
      lane.queue.pop_front();
    }
    std::string reply;
    try {
      reply = job->run(*job);
    } catch (...) {
      reply = fail_(*job, std::current_exception());
    }
    finish(*job, reply);
  }
}

// A job leaves the active list before its last reply is written, so that a
// client reading that reply finds the id free again.
void JobRunner::finish(const Job& job, const std::string& reply) {
  {
    std::lock_guard guard(lock_);
    active_.erase(job.id);
  }
  write_(reply);
  {
    std::lock_guard guard(lock_);
    --unfinished_;
  }
  idle_.notify_all();
}

}  // namespace kv::service
