#pragma once

#include <memory>
#include <set>
#include <string>

#include "apps/kagrid/KaRunSetup.h"

// Gridding with --tune: tunes the record (filled, with the user's `given`
// keys applied) on the samples with `threads` threads (0: one per core), says
// on stderr what was chosen (unless quiet) and returns the tuned record.
std::unique_ptr<KaEstimatorGridParam> TuneForGridding(const KaMethodInfo& method,
                                                      std::unique_ptr<KaEstimatorGridParam> record,
                                                      const std::set<std::string>& given, KaSampleList& samples,
                                                      unsigned threads, bool quiet);
