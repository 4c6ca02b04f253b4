#ifndef VANTRY_SRC_SLAB_POOL_H
#define VANTRY_SRC_SLAB_POOL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

namespace vantry {

// Memory for small objects of one size that are made many at a time and released many at a time, on any
// thread.
//
// A thread hands out the cells of one slab after the other and never takes one back; a slab is released with
// the last of its cells. So there is no lock and no list of free cells: making an object costs a step
// forward, releasing one a subtraction.
template <std::size_t ObjectBytes>
class SlabPool {
    static constexpr std::size_t ALIGNMENT = 4096;
    // The allocator's own words fit before the next slab, so that slabs lie side by side.
    static constexpr std::size_t SLAB_BYTES = ALIGNMENT - 2 * sizeof(void*);

    struct Slab {
        // Cells that are not released yet, those that were not handed out included.
        std::atomic<std::size_t> live;

        void* Cell(std::size_t index) {
            return reinterpret_cast<char*>(this) + HEAD_BYTES + index * ObjectBytes;
        }
    };

    static constexpr std::size_t HEAD_BYTES = alignof(std::max_align_t);
    static constexpr std::size_t CELLS = (SLAB_BYTES - HEAD_BYTES) / ObjectBytes;
    static_assert(sizeof(Slab) <= HEAD_BYTES && ObjectBytes % alignof(void*) == 0 && CELLS > 1);

    // The slab that the thread hands out.
    struct Open {
        Slab* slab;
        std::size_t next;
    };

public:
    // Makes many objects one after the other: the look at what belongs to the thread is taken once.
    class Batch {
    public:
        Batch() : m_open(Mine()) {}

        // Null when memory runs out.
        void* Allocate() noexcept {
            if (m_open.slab == nullptr && !OpenSlab(m_open)) {
                return nullptr;
            }
            void* const cell = m_open.slab->Cell(m_open.next);
            ++m_open.next;
            // A slab that is handed out to its end belongs to its cells alone.
            if (m_open.next == CELLS) {
                m_open.slab = nullptr;
            }
            return cell;
        }

    private:
        typename SlabPool::Open& m_open;
    };

    static void* Allocate() noexcept { return Batch().Allocate(); }

    static void Release(void* cell) noexcept {
        if (cell != nullptr) {
            Drop(SlabOf(cell), 1);
        }
    }

private:
    // Gives up the rest of a thread's slab when the thread ends.
    struct Closer {
        ~Closer() {
            t_ended = true;
            if (t_open.slab != nullptr) {
                Drop(t_open.slab, CELLS - t_open.next);
                t_open.slab = nullptr;
            }
        }
    };

    // A call, so that the compiler keeps what it answers instead of asking again for every object.
    [[gnu::noinline]] static Open& Mine() noexcept { return t_open; }

    static bool OpenSlab(Open& opened) noexcept {
        void* const memory = ::operator new(SLAB_BYTES, std::align_val_t(ALIGNMENT), std::nothrow);
        if (memory == nullptr) {
            return false;
        }
        // While a thread ends, nobody closes its slab any more: each object then gets one of its own.
        // To ask for its address makes the closer wait for the thread's end.
        static_cast<void>(&t_closer);
        const bool shared = !t_ended;
        opened.slab = new (memory) Slab{{shared ? CELLS : 1}};
        opened.next = shared ? 0 : CELLS - 1;
        return true;
    }

    static void Drop(Slab* slab, std::size_t cells) noexcept {
        if (slab->live.fetch_sub(cells, std::memory_order_acq_rel) == cells) {
            ::operator delete(slab, std::align_val_t(ALIGNMENT));
        }
    }

    static Slab* SlabOf(void* cell) {
        auto* const bytes = static_cast<char*>(cell);
        return reinterpret_cast<Slab*>(bytes - reinterpret_cast<std::uintptr_t>(cell) % ALIGNMENT);
    }

    static inline thread_local Open t_open{nullptr, 0};
    static inline thread_local bool t_ended = false;
    static inline thread_local Closer t_closer;
};

}  // namespace vantry

#endif
