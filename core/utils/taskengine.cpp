#include "core/utils/taskengine.h"

#include <locale>
#include <thread>
#include <utility>

#include "core/platform/process.h"
#include "core/types/exceptions.h"
#include "core/types/log.h"
#include "core/utils/executors.h"
#include "core/utils/scopeexit.h"
#include "core/utils/waitfor.h"

namespace velmora {
namespace {

std::string describe(const void* engine) {
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << "active tasks (this=" << engine << ")";
    return out.str();
}

}  // namespace

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
    VELMORA_LOG(trace, "taskengine") << "started this=" << this << " index=" << index;
}

void TaskEngine::stop() {
    if (state_->stopped.exchange(true)) return;
    exceptionSafeWrapper([this] { waitFor([this] { return state_->active == 0; }, describe(this), 1, kNoTimeout); });
    // The wait may have failed, for lack of memory perhaps; bodies that run on would find their owner gone.
    while (state_->active != 0 && !platform::isTerminating()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const uint64_t ignored = state_->pending.exchange(0);
    VELMORA_LOG(trace, "taskengine") << "stopped this=" << this << " index=" << state_->index << "ignored " << ignored
                                     << " pending tasks";
}

void TaskEngine::schedule(std::chrono::milliseconds delay, Task task) {
    if (Task accepted = accept(std::move(task))) SystemTimer()(delay, std::move(accepted));
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
    // First active, then the test; stop() goes the other way round. So no body begins after stop() has returned.
    ++state->active;
    if (state->stopped || captured != state->index) {
        --state->active;
        return;
    }
    const ScopeExit finished([&] {
        task = nullptr;  // what it holds goes while stop() still waits
        --state->pending;
        --state->active;
    });
    VELMORA_LOG_AT(trace, "taskengine", "velmora::TaskEngine::schedule") << "perform task this=" << engine;
    task();
}

SerialTaskEngine::SerialTaskEngine()
    : queue_(std::make_shared<SerialQueue>(DefaultExecutor(), SerialQueue::Mode::oneTaskPerTurn)) {
    schedule(Task([] {}));  // brings up the pool
}

SerialTaskEngine::~SerialTaskEngine() { queue_.reset(); }

void SerialTaskEngine::schedule(Task task) {
    if (Task accepted = accept(std::move(task))) queue_->enqueue(std::move(accepted));
}

}  // namespace velmora
