/// What the fleet's measurements share: bounds, and what the system tells of processes.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace ZARO::Fleet {

/// Prints whether a bound is kept. `figure` is what was measured, e.g. "19.2 KiB per session".
void Check(bool holds, const std::string& figure, const std::string& bound);
/// How many bounds were missed so far.
int Missed();

/// A text with values in it, as printf makes it.
__attribute__((format(printf, 1, 2))) std::string Text(const char* format, ...);

/// What some processes take.
struct Usage {
    std::map<pid_t, double> cpu; ///< seconds of processor time since the start of each
    double rss = 0;              ///< KiB
    long descriptors = 0;
    long threads = 0;
    long mostThreads = 0; ///< of one process

    void Add(pid_t pid);
    /// Seconds of processor time since `before`; a process that is new since then counts in full.
    double CpuSince(const Usage& before) const;
};

/// The value that this share of `sorted`, from 0 to 1, is below. 0 without any.
double Quantile(const std::vector<double>& sorted, double share);

} // namespace ZARO::Fleet
