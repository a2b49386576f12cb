#include <plexa/znr-reactor-group.h>

#include <plexa/znr-error.h>
#include <plexa/znr-string.h>

#include <cerrno>
#include <string>

ZNRReactorGroup::ZNRReactorGroup(ZNRReactorMgr* mgr)
    : mgr_(mgr != nullptr ? mgr : ZNRSingleton<ZNRReactorMgr>::Instance()), started_(false) {}

ZNRReactorGroup::~ZNRReactorGroup() { RemoveAll(); }

std::uint64_t ZNRReactorGroup::Start(unsigned int count, ZNRString const& name) {
    if (count == 0 || started_) return ZNRSysError(EINVAL);
    started_ = true;
    std::string const prefix = name.ToStdCStr() + "-";
    for (unsigned int i = 0; i < count; ++i) {
        std::uint64_t error = 0;
        std::uint64_t const id = mgr_->New(&error);
        if (id == ZNR_ERROR_FAILED_ID) {
            RemoveAll();
            return error;
        }
        ids_->push_back(id);
        error = mgr_->StartThread(id, ZNRString(prefix + std::to_string(id)), nullptr);
        if (error != 0) {
            RemoveAll();
            return error;
        }
    }
    return 0;
}

void ZNRReactorGroup::RemoveAll() {
    for (std::uint64_t id : *ids_) mgr_->Remove(id);
    ids_->clear();
}
