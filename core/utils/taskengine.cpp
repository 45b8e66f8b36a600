#include "core/utils/taskengine.h"

#include <locale>
#include <utility>

#include "core/platform/process.h"
#include "core/types/errors.h"
#include "core/types/function.h"
#include "core/types/logger.h"
#include "core/utils/gate.h"

namespace velmora {
namespace {

std::string describe(const void* engine) {
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << "active tasks (this=" << engine << ")";
    return out.str();
}

platform::Pool* replacedPool = nullptr;
platform::Timer* replacedTimer = nullptr;

platform::Timer& timer() { return replacedTimer ? *replacedTimer : platform::defaultTimer(); }

}  // namespace

void DefaultExecutor::operator()(Task task) const {
    (replacedPool ? *replacedPool : platform::defaultPool()).run(std::move(task));
}

void SystemTimer::operator()(std::chrono::milliseconds delay, const void* owner, Task task) const {
    timer().runAfter(delay, owner, std::move(task));
}

void SystemTimer::forget(const void* owner) const noexcept { timer().forget(owner); }

void setPools(platform::Pool* pool, platform::Timer* timer) noexcept {
    replacedPool = pool;
    replacedTimer = timer;
}

SerialQueue::SerialQueue(Executor executor) : executor_(std::move(executor)) {}

void SerialQueue::enqueue(Task task) {
    size_t position = 0;
    {
        const MutexLock lock(mutex_);
        position = tasks_.size();
        tasks_.push_back(std::move(task));
        if (std::exchange(running_, true)) return;  // the turn in flight will find it
    }
    try {
        startTurn();
    } catch (...) {
        task = abandonTurn(position);
        throw;
    }
}

// Nothing has left the queue since, as there is no turn. What others have added waits for the next one.
Task SerialQueue::abandonTurn(size_t position) {
    const MutexLock lock(mutex_);
    running_ = false;
    const auto refused = tasks_.begin() + static_cast<std::ptrdiff_t>(position);
    Task task = std::move(*refused);
    tasks_.erase(refused);
    return task;
}

void SerialQueue::startTurn() {
    executor_([self = shared_from_this()] { self->runTurns(); });
}

void SerialQueue::runTurns() {
    do {
        runOneTask();
    } while (!endTurn());
}

void SerialQueue::runOneTask() {
    Task task;
    {
        const MutexLock lock(mutex_);
        task = std::move(tasks_.front());
        tasks_.pop_front();
    }
    task();
}

// False if there are tasks and the executor takes no further turn: the present one then goes on.
bool SerialQueue::endTurn() noexcept {
    {
        const MutexLock lock(mutex_);
        if (tasks_.empty()) {
            running_ = false;
            return true;
        }
    }
    try {
        startTurn();
        return true;
    } catch (...) {
        return false;
    }
}

TaskEngine::TaskEngine() : state_(std::make_shared<State>()) {
    VELMORA_LOG(trace, "taskengine") << "creating this=" << this;
    start();
}

TaskEngine::~TaskEngine() {
    exceptionSafeWrapper([this] {
        VELMORA_LOG_AT(trace, "taskengine", "velmora::TaskEngine::~TaskEngine") << "destroying this=" << this;
        stop();
    });
}

void TaskEngine::start() {
    if (!state_->stopped.exchange(false)) return;
    const uint64_t index = ++state_->index;
    state_->active.open();
    VELMORA_LOG(trace, "taskengine") << "started this=" << this << " index=" << index;
}

void TaskEngine::stop() {
    if (state_->stopped.exchange(true)) return;
    Gate& active = state_->active;
    active.close();
    exceptionSafeWrapper(
        [&] { waitFor([&](Gate::Clock::time_point deadline) { return active.waitUntil(deadline); }, describe(this)); });
    // The wait may have failed, for lack of memory perhaps; bodies that run on would find their owner gone.
    active.wait();
    SystemTimer().forget(state_.get());
    const uint64_t ignored = state_->pending.exchange(0);
    VELMORA_LOG(trace, "taskengine") << "stopped this=" << this << " index=" << state_->index << "ignored " << ignored
                                     << " pending tasks";
}

void TaskEngine::schedule(std::chrono::milliseconds delay, Task task) {
    if (Task accepted = accept(std::move(task))) SystemTimer()(delay, state_.get(), std::move(accepted));
}

Task TaskEngine::accept(Task task) {
    if (state_->stopped) {
        VELMORA_LOG_AT(trace, "taskengine", "velmora::TaskEngine::schedule")
            << "engine stopped; skip schedule this=" << this;
        return nullptr;
    }
    const uint64_t captured = state_->index;
    VELMORA_LOG_AT(trace, "taskengine", "velmora::TaskEngine::schedule") << "schedule task this=" << this;
    ++state_->pending;
    // The engine's address is for the log alone: the engine may be gone when the task's turn comes.
    return [engine = static_cast<const void*>(this), weak = std::weak_ptr<State>(state_), captured,
            body = std::move(task)]() mutable { exceptionSafeWrapper([&] { perform(engine, weak, captured, body); }); };
}

void TaskEngine::perform(const void* engine, const std::weak_ptr<State>& weak, uint64_t captured, Task& task) {
    const std::shared_ptr<State> state = weak.lock();
    if (!state) return;
    // Counted in before the generation is looked at: so no body begins after stop() has returned.
    if (!state->active.enter()) return;
    const ScopeExit left([&] { state->active.leave(); });
    if (captured != state->index) return;
    const ScopeExit finished([&] {
        task = nullptr;  // what it holds goes while stop() still waits
        --state->pending;
    });
    VELMORA_LOG_AT(trace, "taskengine", "velmora::TaskEngine::schedule") << "perform task this=" << engine;
    task();
}

SerialTaskEngine::SerialTaskEngine() : queue_(std::make_shared<SerialQueue>(DefaultExecutor())) {
    schedule(Task([] {}));  // brings up the pool
}

SerialTaskEngine::~SerialTaskEngine() { queue_.reset(); }

void SerialTaskEngine::schedule(Task task) {
    if (Task accepted = accept(std::move(task))) queue_->enqueue(std::move(accepted));
}

}  // namespace velmora
