#ifndef PLEXA_ZNR_REACTOR_GROUP_H
#define PLEXA_ZNR_REACTOR_GROUP_H

#include <plexa/znr-export.h>
#include <plexa/znr-reactor-mgr.h>
#include <plexa/znr-stl-adapter.h>

#include <cstdint>
#include <vector>

class ZNRString;

/// Reactors that live as long as one object: Start creates them with a
/// reactor manager and runs each on a thread of its own; the destructor
/// stops, joins and destroys those reactors, with their devices, tasks and
/// timers, and leaves every other reactor of the manager alone.
///
/// Whatever the reactors call (an acceptor, handler factories, maps their
/// handlers use) must outlive the group: declare those before it.
class ZNR_API ZNRReactorGroup {
public:
    /// Uses mgr (not owned; it must outlive the group), or the manager
    /// singleton when mgr is null. Any thread.
    explicit ZNRReactorGroup(ZNRReactorMgr* mgr = nullptr);
    ZNRReactorGroup(ZNRReactorGroup const&) = delete;
    ZNRReactorGroup& operator=(ZNRReactorGroup const&) = delete;
    /// Removes the group's reactors in the order they were made. Any thread
    /// but theirs.
    ~ZNRReactorGroup();

    /// Creates count reactors and starts each on a thread named name + "-"
    /// + its id. Once per group, from the thread that owns the group.
    /// Returns 0; EINVAL for a count of 0 or a second Start; otherwise the
    /// manager's error from New or StartThread, after removing the
    /// reactors made so far.
    std::uint64_t Start(unsigned int count, ZNRString const& name);

    /// The reactor ids, in the order they were made; empty before Start.
    /// The vector is the group's. Any thread, once Start has returned.
    std::vector<std::uint64_t> const& GetIds() const { return *ids_; }

private:
    void RemoveAll();

    ZNRReactorMgr* mgr_;
    ZNRStlAdapter<std::vector<std::uint64_t>> ids_;
    bool started_;
};

#endif
