#include "core/KaRowDriver.h"

#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

void RunInOrder(uint64_t count, const std::function<void(unsigned, uint64_t)>& work,
                const std::function<bool(uint64_t)>& progress)
{
    for (uint64_t i = 0; i < count; ++i) {
        if (progress && !progress(i)) throw KaCancelled();
        work(0, i);
    }
}

}  // namespace

// Items come one at a time from a shared counter. Progress for item i is
// sent, on this thread, once items 0 .. i - 1 are done, so the caller sees
// the sequence of the single loop. A failing item stops further items from
// being handed out; every item below it was handed out before it and runs to
// its end, so the lowest failure is the one the single loop meets.
void KaRunItems(uint64_t count, unsigned workers, const std::function<void(unsigned, uint64_t)>& work,
                const std::function<bool(uint64_t)>& progress)
{
    if (workers > count) workers = static_cast<unsigned>(count);
    if (workers <= 1) return RunInOrder(count, work, progress);

    std::unique_ptr<std::atomic<bool>[]> done(new std::atomic<bool>[count]);
    for (uint64_t i = 0; i < count; ++i) done[i].store(false, std::memory_order_relaxed);
    std::atomic<uint64_t> next{0};
    std::atomic<bool> stop{false};
    std::mutex failureLock;  // taken only when an item fails
    uint64_t failedItem = count;
    std::exception_ptr failure;
    bool cancelled = false;

    // Handles item i with `worker`; false when it failed.
    auto one = [&](unsigned worker, uint64_t i) {
        try {
            work(worker, i);
        } catch (...) {
            std::lock_guard<std::mutex> lock(failureLock);
            if (i < failedItem) {
                failedItem = i;
                failure = std::current_exception();
            }
            stop.store(true, std::memory_order_relaxed);
            return false;
        }
        done[i].store(true, std::memory_order_release);
        return true;
    };
    // Takes the next item; false when none is left or the run stops.
    auto take = [&](unsigned worker) {
        if (stop.load(std::memory_order_relaxed)) return false;
        const uint64_t i = next.fetch_add(1, std::memory_order_relaxed);
        if (i >= count) return false;
        return one(worker, i);
    };

    uint64_t announced = 0;  // progress sent for items below this
    auto announce = [&](bool all) {
        while (announced < count && (announced == 0 || done[announced - 1].load(std::memory_order_acquire)) &&
               (all || announced < next.load(std::memory_order_relaxed))) {
            if (progress && !progress(announced)) {
                cancelled = true;
                stop.store(true, std::memory_order_relaxed);
                ++announced;
                return;
            }
            ++announced;
        }
    };
    {
        // This thread takes item 0 before the others start.
        next.store(1, std::memory_order_relaxed);
        std::vector<std::jthread> pool;
        pool.reserve(workers - 1);
        for (unsigned w = 1; w < workers; ++w)
            pool.emplace_back([&take, w] {
                while (take(w)) {
                }
            });
        // A progress callback that throws (a caller stopping the run its own
        // way) hands out no more items either.
        try {
            if (progress && !progress(announced++)) {
                cancelled = true;
                stop.store(true, std::memory_order_relaxed);
            } else if (one(0, 0)) {
                // This thread works too, and reports progress between its items.
                do {
                    announce(false);
                } while (!cancelled && take(0));
            }
        } catch (...) {
            stop.store(true, std::memory_order_relaxed);
            throw;
        }
    }  // joins
    if (!cancelled) announce(true);
    // A stop was asked at an item all below which were done, so at or before
    // any failure: the single loop would have stopped there too.
    if (cancelled) throw KaCancelled();
    if (failure) std::rethrow_exception(failure);
}
