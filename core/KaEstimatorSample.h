#pragma once

#include <list>
#include <stdexcept>

#include "platform/kadata/Ka3DPoint.h"

class KaDataObject;

// One sample of a job: exactly one point, nothing else.
template <typename T>
class KaEstimatorSample {
public:
    KaEstimatorSample() = default;
    explicit KaEstimatorSample(const T& p) : point(p) {}
    virtual ~KaEstimatorSample() = default;
    KaEstimatorSample(const KaEstimatorSample&) = default;
    KaEstimatorSample& operator=(const KaEstimatorSample&) = default;

    T point;
};

// The samples of a job in input order, duplicates kept. Created on the heap and
// handed over by pointer; whoever holds it last owns it.
template <typename T>
class KaEstimatorSampleList : public std::list<KaEstimatorSample<T>> {
public:
    virtual ~KaEstimatorSampleList() = default;

    void Append(const T& p)
    {
        if (this->size() >= this->max_size()) throw std::length_error("list<T> too long");
        this->emplace_back(p);
    }
};

using KaSample = KaEstimatorSample<Ka3DPoint>;
using KaSampleList = KaEstimatorSampleList<Ka3DPoint>;

// Builds the sample list of a surface (every node, blank ones included, rows
// from the minimum y) or of a point set (input order). The list held before is
// deleted first; `out` is null on failure.
bool BuildSampleList(KaSampleList*& out, const KaDataObject* in);
