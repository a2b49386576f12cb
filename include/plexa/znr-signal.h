#ifndef PLEXA_ZNR_SIGNAL_H
#define PLEXA_ZNR_SIGNAL_H

#include <plexa/znr-error.h>
#include <plexa/znr-export.h>

#include <cstdint>
#include <tuple>
#include <type_traits>
#include <utility>

/** @file
 *  Signals and slots. A signal calls its connected slots, in the order they
 *  were connected, each time it is emitted. A slot is a member function of a
 *  ZNRSlotHost, or any callable tied to a host (or to none). Every connection
 *  is counted on both sides: by its signal and by its host; disconnecting
 *  from either side (or destroying either) removes it from both.
 *
 *  The threading rule, for every signal and host:
 *  - Connect, Disconnect, counts and Emit are safe from any thread, at once.
 *  - Emit calls the slots connected when it starts, on the emitting thread,
 *    with no lock held: a slot may emit, connect and disconnect freely. A
 *    slot connected during an emit is first called by the next one; a slot
 *    disconnected during an emit (by itself or by anyone else) is not called
 *    afterwards by that emit, nor by any other.
 *  - Once a disconnection returns (Disconnect, DisconnectHost, DisconnectAll,
 *    a destructor), no other thread is running the slots it removed and none
 *    will start: it stops them all from starting, then waits for the calls
 *    under way on other threads. The calling thread's own calls (a slot
 *    disconnecting itself) are not waited for.
 *  - A host that may be destroyed while other threads emit must call
 *    DisconnectAll() first in its most-derived destructor: the base
 *    destructor runs after the derived members are gone.
 *  - A signal may be destroyed while other threads are inside its Emit (the
 *    slots under way finish, no further slot is called); destroying it while
 *    a thread is about to call Emit is the caller's race, as for any object.
 *  - A disconnection must not wait for a slot that itself waits for the
 *    disconnecting thread (a lock held around Disconnect that a slot takes). */

class ZNRSlotHost;

/// The untyped part: connection records, counting, locking and disconnection.
class ZNR_API ZNRSignalBase {
public:
    /// A connected callable; the typed signals define how it is called.
    class ZNR_API Slot {
    public:
        /// Slots are deleted by their signal once disconnected.
        virtual ~Slot();
    };

    ZNRSignalBase(ZNRSignalBase const&) = delete;
    ZNRSignalBase& operator=(ZNRSignalBase const&) = delete;

    /// Any thread. Number of connected slots.
    std::uint32_t GetSlotCount() const;
    /// Any thread. False when id is not (or no longer) connected here.
    bool Disconnect(std::uint64_t id);
    /// Any thread. Removes every slot of host; returns how many there were.
    std::uint32_t DisconnectHost(ZNRSlotHost const* host);
    /// Any thread. Removes every slot.
    void DisconnectAll();

protected:
    /// Calls one slot with the typed arguments that args points to.
    typedef void (*Invoke_t)(Slot* slot, void* args);

    /// No slots.
    ZNRSignalBase();
    /// Disconnects everything (waiting as described above).
    virtual ~ZNRSignalBase();

    /// Takes slot; host may be null. Returns the new connection id (from 1).
    std::uint64_t Attach(ZNRSlotHost* host, Slot* slot);
    /// Calls invoke(slot, args) for each slot connected when it starts.
    void Call(Invoke_t invoke, void* args) const;
    /// Stores library error 1 in *error (when not null) and returns all ones:
    /// the answer to a null slot.
    static std::uint64_t Refuse(std::uint64_t* error);

private:
    struct Core;
    Core* core_;
};

/// Base of objects whose member functions are connected: destroying the host
/// disconnects all its slots. Not copyable: connections belong to one object.
class ZNR_API ZNRSlotHost {
public:
    ZNRSlotHost(ZNRSlotHost const&) = delete;
    ZNRSlotHost& operator=(ZNRSlotHost const&) = delete;

    /// Any thread. Number of connections to this host, over all signals.
    std::uint32_t GetConnectionCount() const;
    /// Any thread. Disconnects every slot of this host from every signal.
    void DisconnectAll();

protected:
    /// No connections.
    ZNRSlotHost();
    /// DisconnectAll(), waiting as the threading rule says.
    virtual ~ZNRSlotHost();

private:
    friend class ZNRSignalBase;
    struct Core;
    Core* core_;
};

/// A signal with the argument types Args. Arguments are passed to every slot
/// as the same lvalues, so one slot's changes through a reference are seen by
/// the next.
template <class... Args>
class ZNRSignal_T : public ZNRSignalBase {
public:
    /// No slots.
    ZNRSignal_T() = default;

    /// Any thread. Connects host's member function (of H or a base of H).
    /// Returns the connection id; all ones, with *error set to library
    /// error 1, when host or method is null.
    template <class H, class M,
              typename std::enable_if<std::is_member_function_pointer<M>::value, int>::type = 0>
    std::uint64_t Connect(H* host, M method, std::uint64_t* error = nullptr) {
        static_assert(std::is_base_of<ZNRSlotHost, H>::value, "the host must be a ZNRSlotHost");
        if (host == nullptr || method == nullptr) return Refuse(error);
        auto call = [host, method](Args&... args) { (host->*method)(args...); };
        return Attach(host, new Callable<decltype(call)>(std::move(call)));
    }

    /// Any thread. Connects a callable that lives as long as the connection;
    /// with a host it is disconnected with the host. A null function pointer
    /// is refused like a null method.
    template <class F, typename std::enable_if<
                           !std::is_member_function_pointer<typename std::decay<F>::type>::value,
                           int>::type = 0>
    std::uint64_t Connect(ZNRSlotHost* host, F&& fn, std::uint64_t* error = nullptr) {
        typedef typename std::decay<F>::type Fn;
        if constexpr (std::is_pointer<Fn>::value) {
            if (fn == nullptr) return Refuse(error);
        }
        return Attach(host, new Callable<Fn>(std::forward<F>(fn)));
    }

    /// Any thread (see the threading rule above).
    void Emit(Args... args) const {
        std::tuple<Args&...> pack{args...};
        Call(&Invoke, &pack);
    }
    /// Emit(args...).
    void operator()(Args... args) const { Emit(args...); }

private:
    struct Typed : Slot {
        virtual void Run(Args&... args) = 0;
    };
    template <class Fn>
    struct Callable : Typed {
        template <class G>
        explicit Callable(G&& g) : fn(std::forward<G>(g)) {}
        void Run(Args&... args) override { fn(args...); }
        Fn fn;
    };

    static void Invoke(Slot* slot, void* args) {
        Typed* const typed = static_cast<Typed*>(slot);
        std::apply([typed](Args&... a) { typed->Run(a...); },
                   *static_cast<std::tuple<Args&...>*>(args));
    }
};

/// A signal without arguments.
class ZNRSignal0 : public ZNRSignal_T<> {};

/// A signal with one argument.
template <class A>
class ZNRSignal1 : public ZNRSignal_T<A> {};

/// A signal with two arguments.
template <class A, class B>
class ZNRSignal2 : public ZNRSignal_T<A, B> {};

/// A signal with three arguments.
template <class A, class B, class C>
class ZNRSignal3 : public ZNRSignal_T<A, B, C> {};

#endif
