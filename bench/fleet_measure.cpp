#include "bench/fleet_measure.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "tests/support/processes.h"

namespace ZARO::Fleet {

namespace {

int gMissed = 0;

/// The number behind `key` in a file of /proc.
long Number(const std::string& text, const char* key) {
    const std::size_t at = text.find(key);
    return at == std::string::npos ? 0
                                   : atol(text.c_str() + at + std::char_traits<char>::length(key));
}

/// Seconds of processor time, in the 14th and 15th field of the file "stat".
double CpuOf(const std::string& stat) {
    constexpr std::size_t kUser = 11; // counted from behind the program's name
    const std::size_t name = stat.rfind(')');
    const auto fields = Words(name == std::string::npos ? "" : stat.substr(name + 1));
    const auto ticks = [&](std::size_t field) { return strtod(fields[field].c_str(), nullptr); };
    return fields.size() <= kUser + 1
               ? 0
               : (ticks(kUser) + ticks(kUser + 1)) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

} // namespace

void Check(bool holds, const std::string& figure, const std::string& bound) {
    printf("  %-6s %s (%s)\n", holds ? "kept" : "MISSED", figure.c_str(), bound.c_str());
    gMissed += holds ? 0 : 1;
}

int Missed() {
    return gMissed;
}

std::string Text(const char* format, ...) {
    char text[256];
    va_list values;
    va_start(values, format);
    (void)vsnprintf(text, sizeof text, format, values);
    va_end(values);
    return text;
}

void Usage::Add(pid_t pid) {
    const std::string folder = "/proc/" + std::to_string(pid);
    const std::string status = ReadFile(folder + "/status");
    cpu[pid] = CpuOf(ReadFile(folder + "/stat"));
    rss += static_cast<double>(Number(status, "\nVmRSS:"));
    const long here = Number(status, "\nThreads:");
    threads += here;
    mostThreads = std::max(mostThreads, here);
    std::error_code gone; // the process may end meanwhile
    const fs::directory_iterator files(folder + "/fd", gone);
    descriptors += std::distance(begin(files), end(files));
}

double Usage::CpuSince(const Usage& before) const {
    double sum = 0;
    for (const auto& [pid, seconds] : cpu) {
        const auto former = before.cpu.find(pid);
        sum += seconds - (former == before.cpu.end() ? 0 : former->second);
    }
    return sum;
}

double Quantile(const std::vector<double>& sorted, double share) {
    if (sorted.empty()) {
        return 0;
    }
    const auto last = static_cast<double>(sorted.size() - 1);
    return sorted[static_cast<std::size_t>(share * last)];
}

} // namespace ZARO::Fleet
