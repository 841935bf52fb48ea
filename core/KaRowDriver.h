#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>

// A run stopped by its caller (a progress callback that answered false).
class KaCancelled : public std::runtime_error {
public:
    KaCancelled() : std::runtime_error("stopped") {}
};

// Runs items 0 .. count - 1 (the rows of a grid, bands of rows, chunks of
// positions or of samples) on `workers` threads, the calling thread among
// them. What every run of the grid job, the triangulation job, leave-one-out
// and prediction share:
// - work(worker, item) handles one item with worker `worker`'s own state
//   (worker 0 is the calling thread, and it takes item 0); it may throw.
//   Each item is handled once, whole; items are handed out in order.
// - progress(item), when set, is called on the calling thread once for every
//   item, in order, when all items below it are done: before the item itself
//   in a run on one worker. It may answer false to stop: no further item is
//   handed out and KaCancelled is thrown once the workers have ended (also
//   when items failed: they lie above the stop, and one loop never reaches them).
// - When items throw, the exception of the lowest failing item is rethrown,
//   after every worker ended, whatever the number of workers; progress has
//   then been told up to and including that item, as a run on one worker tells it.
void KaRunItems(uint64_t count, unsigned workers, const std::function<void(unsigned worker, uint64_t item)>& work,
                const std::function<bool(uint64_t item)>& progress = {});
