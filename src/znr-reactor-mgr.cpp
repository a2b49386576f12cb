#include <plexa/znr-reactor-mgr.h>

template class ZNRReactorMgr_T<ZNRReactorIOCP, ZNRTimerMgr, ZNRReactorThread>;
template class ZNRSingleton<ZNRReactorMgr_T<ZNRReactorIOCP, ZNRTimerMgr, ZNRReactorThread>>;

ZNRReactorThread::ZNRReactorThread(std::uint64_t reactor_id, void* user_data)
    : ZNRThread(nullptr), reactor_id_(reactor_id), user_data_(user_data) {}

ZNRReactorThread::~ZNRReactorThread() {}

void ZNRReactorThread::Destroy() { delete this; }
