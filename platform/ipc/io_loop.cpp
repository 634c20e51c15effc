#include "platform/ipc/io_loop.h"

#include <utility>  // in front of Asio, some of whose headers lack it

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/system/error_code.hpp>
#include <boost/system/system_error.hpp>
#include <csignal>
#include <exception>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "core/common/unix/trace.h"

namespace Platform::Ipc {

namespace {

using boost::asio::posix::stream_descriptor;
using boost::system::error_code;

constexpr std::size_t kScratchSize = std::size_t{256} << 10;
constexpr std::chrono::milliseconds kMemoryPause{10};

// Asio fails by an exception of its own, which callers don't know.
template <class Made, class... Arguments>
std::unique_ptr<Made> Make(Arguments&&... arguments) {
  try {
    return std::make_unique<Made>(std::forward<Arguments>(arguments)...);
  } catch (const boost::system::system_error& failure) {
    throw std::system_error(failure.code().value(), std::system_category());
  }
}

class AsioWatch final : public IoWatch {
 public:
  AsioWatch(boost::asio::io_context& context, int descriptor) : stream_(context, descriptor) {}
  ~AsioWatch() override {
    *is_alive_ = false;
    stream_.release();
  }

  void WaitReadable(std::function<void()> ready) override {
    Wait(stream_descriptor::wait_read, std::move(ready));
  }
  void WaitWritable(std::function<void()> ready) override {
    Wait(stream_descriptor::wait_write, std::move(ready));
  }

 private:
  void Wait(stream_descriptor::wait_type type, std::function<void()> ready) {
    stream_.async_wait(type, [ready = std::move(ready), is_alive = is_alive_](const error_code&) {
      if (*is_alive) ready();
    });
  }

  stream_descriptor stream_;
  // What is ready already when the watch goes is called without a failure all the same.
  const std::shared_ptr<bool> is_alive_ = std::make_shared<bool>(true);
};

class AsioTimer final : public IoTimer {
 public:
  explicit AsioTimer(boost::asio::io_context& context) : timer_(context) {}
  ~AsioTimer() override { ++*wait_; }

  void Wait(std::chrono::steady_clock::duration time, std::function<void()> expired) override {
    timer_.expires_after(time);
    timer_.async_wait(
        [expired = std::move(expired), wait = wait_, number = ++*wait_](const error_code& failure) {
          if (!failure && *wait == number) expired();
        });
  }

 private:
  boost::asio::steady_timer timer_;
  const std::shared_ptr<unsigned int> wait_ = std::make_shared<unsigned int>(0);
};

class AsioLoop final : public IoLoop {
 public:
  AsioLoop() : work_(context_.get_executor()), scratch_(kScratchSize) {
    // What the waits need of the system is had here, where a lack of it can be told.
    stream_descriptor first(context_);
    // Signals are for the threads of the program.
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &former);
    try {
      thread_ = std::thread([this] { Run(); });
    } catch (...) {
      ::pthread_sigmask(SIG_SETMASK, &former, nullptr);
      throw;
    }
    ::pthread_sigmask(SIG_SETMASK, &former, nullptr);
  }
  ~AsioLoop() override { Stop(); }

  bool Post(std::function<void()> task) override {
    const std::lock_guard lock(mutex_);
    if (is_stopped_) return false;
    boost::asio::post(context_, std::move(task));
    return true;
  }
  bool IsOwnThread() const override { return std::this_thread::get_id() == thread_.get_id(); }
  void Stop() override {
    {
      const std::lock_guard lock(mutex_);
      if (std::exchange(is_stopped_, true)) return;
      work_.reset();
    }
    thread_.join();
  }

  std::unique_ptr<IoWatch> CreateWatch(int descriptor) override {
    return Make<AsioWatch>(context_, descriptor);
  }
  std::unique_ptr<IoTimer> CreateTimer() override { return std::make_unique<AsioTimer>(context_); }
  std::span<unsigned char> GetScratch() override { return scratch_; }

 private:
  void Run() {
    for (;;) {
      try {
        context_.run();
        return;
      } catch (const std::exception& failure) {
        // Memory ran out where no connection could be ended for it.
        Common::Trace(Common::kTraceError, 0, 0, failure.what());
      }
    }
  }

  // Two threads use it: the loop's own, and whoever posts.
  boost::asio::io_context context_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
  std::vector<unsigned char> scratch_;
  std::mutex mutex_;
  bool is_stopped_ = false;  // guarded by `mutex_`
  std::thread thread_;
};

}  // namespace

bool IoLoop::PostAtLast(const std::function<void()>& task) noexcept {
  for (;;) {
    try {
      return Post(task);
    } catch (const std::bad_alloc&) {
      std::this_thread::sleep_for(kMemoryPause);
    }
  }
}

std::unique_ptr<IoLoop> IoLoop::Create() {
  return Make<AsioLoop>();
}

}  // namespace Platform::Ipc
