#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/KaEstimatorSample.h"
#include "methods/numeric/KaVariogramFit.h"

class KaEstimatorGridParam;
struct KaMethodInfo;

// The up-front memory check every front end makes before a run allocates:
// kagrid, the library, vesk and the plug-in's worker thread. Each allocation
// that grows with the request is estimated from the record and the samples;
// a run whose allocations together exceed the machine's memory is refused
// before any of them is made, naming the largest one and its cause.

// A refused request. what(): "<need>, more than this machine's <memory> of
// memory; <advice>".
class KaMemoryError : public std::runtime_error {
public:
    KaMemoryError(const std::string& need, long double bytes, long double machine, const std::string& advice);
    const std::string& Need() const { return need_; }  // "a 200 × 100 grid needs 160 kB"
    long double Bytes() const { return bytes_; }
    long double Machine() const { return machine_; }

private:
    std::string need_;
    long double bytes_, machine_;
};

// The machine's physical memory in bytes (0 when unknown: nothing is refused).
// KAGRID_MACHINE_MEMORY (a byte count, optionally with k, M, G or T) stands in
// for it, so that tests can refuse small requests.
long double KaMachineMemory();

// "160 kB", "25.3 GB": three significant digits, powers of 1000.
std::string KaBytesText(long double bytes);

// "a 100000000 × 100 grid needs 80 GB"; with 2 grids, "a ... grid and its
// standard deviation need ...".
std::string KaGridMemoryText(uint64_t columns, uint64_t rows, unsigned grids = 1);

// One allocation a run will make.
struct KaMemoryItem {
    std::string need;    // "kriging's system of up to 20000 neighbours per node needs 3.2 GB per thread"
    std::string advice;  // the keys to change
    long double bytes = 0;
};

// The grid (and the standard deviation when `grids` is 2): refused when it
// alone exceeds the machine's memory, with `advice` (kagrid's default names
// its grid options). Needs no samples, so it runs before the input is read.
void KaCheckGridMemory(const KaEstimatorGridParam& record, unsigned grids = 1,
                       const std::string& advice = "choose a coarser --cell or a smaller --size");

// What gridding the samples with the record allocates: the grid(s), the
// search structures, each thread's neighbour lists and per-node linear
// system (kriging and radial basis grow with the square of the neighbours:
// many samples at few locations make every node's system huge), and the
// triangulation. `threads` as the job will run them (0: one per core).
std::vector<KaMemoryItem> KaGridRunMemory(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                                          const KaSampleList& samples, unsigned threads, unsigned grids,
                                          const std::string& gridAdvice = "choose a coarser --cell or a smaller --size");

// Leave-one-out (cross-validation, tuning): the search structures and each
// thread's linear system, and `candidates` estimates per sample kept.
// `neighbourCap` bounds the neighbours where the run chooses them itself
// (tuning's candidates take at most 64 unless maxFromAll is given).
std::vector<KaMemoryItem> KaLeaveOneOutMemory(const KaMethodInfo& method, const KaEstimatorGridParam& record,
                                              const KaSampleList& samples, unsigned threads,
                                              std::size_t candidates = 1, uint64_t neighbourCap = UINT64_MAX);

// The experimental variogram: its points, and the lag table its pair loop
// fills (one entry per lag: the cutoff over the width, defaults as the
// variogram takes them).
std::vector<KaMemoryItem> KaVariogramMemory(const std::vector<Ka3DPoint>& points, const KaVariogramOptions& options);

// Throws KaMemoryError when the items together exceed the machine's memory,
// naming the largest item (and the total when several count).
void KaCheckMemory(const std::vector<KaMemoryItem>& items);

// The registry entry whose record type `record` is; null when none is.
const KaMethodInfo* KaMethodOfRecord(const KaEstimatorGridParam& record);

// For a front end that holds a record and its samples but no exceptions
// (vesk, the plug-in's worker thread): KaGridRunMemory's check for the
// record's own method, as a message ("" when the run fits). `gridAdvice`
// says how that front end makes the grid smaller.
std::string KaGridMemoryRefusal(const KaEstimatorGridParam& record, const KaSampleList& samples, unsigned threads,
                                unsigned grids, const std::string& gridAdvice);
