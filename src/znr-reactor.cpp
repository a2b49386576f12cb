#include <plexa/znr-error.h>
#include <plexa/znr-reactor.h>
#include <plexa/znr-timer.h>

#include <cerrno>
#include <utility>

ZNRFunctionTask::ZNRFunctionTask(std::function<bool()> fn) : fn_(std::move(fn)) {}

ZNRFunctionTask::~ZNRFunctionTask() = default;

bool ZNRFunctionTask::Run() { return fn_(); }

void ZNRFunctionTask::Cancel() {}

void ZNRFunctionTask::Destroy() { delete this; }

std::uint64_t ZNRReactor::RegisterTask(std::function<bool()> fn) {
    ZNRReactorTask* const task = new ZNRFunctionTask(std::move(fn));
    std::uint64_t const error = RegisterTask(task);
    if (error != 0) task->Destroy();  // refused: still ours
    return error;
}

std::uint64_t ZNRReactor::RegisterTimer(unsigned int interval, unsigned int repeat_limit,
                                        std::function<bool(std::uint64_t now)> fn,
                                        std::uint64_t* error) {
    ZNRTimer* const timer = new ZNRFunctionTimer(interval, repeat_limit, std::move(fn));
    // A reactor may refuse without saying why.
    std::uint64_t rc = ZNRSysError(EINVAL);
    std::uint64_t const id = RegisterTimer(timer, &rc);
    if (id == ZNR_ERROR_FAILED_ID) {
        timer->Destroy();  // refused: still ours
        if (error != nullptr) *error = rc;
    }
    return id;
}
