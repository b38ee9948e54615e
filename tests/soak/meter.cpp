#include "meter.h"

#include <algorithm>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <malloc.h>
#include <memory>
#include <unistd.h>

#if defined(MDC_SANITIZED)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes(); // GCC has it without a header
#endif

namespace {

constexpr std::size_t kFewest = 8;

std::uint64_t allocated()
{
#if defined(MDC_SANITIZED)
    return __sanitizer_get_current_allocated_bytes();
#else
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}

std::uint64_t entriesOf(const char* folder)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(folder), closedir);
    std::uint64_t count = 0;
    while (const dirent* entry = stream ? readdir(stream.get()) : nullptr) {
        count += entry->d_name[0] == '.' ? 0 : 1;
    }
    return count;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

struct Point
{
    double seconds;
    double value;
};

double slopeOf(const std::vector<Point>& points)
{
    std::vector<double> slopes;
    for (std::size_t i = 0; i < points.size(); ++i) {
        for (std::size_t j = i + 1; j < points.size(); ++j) {
            if (points[j].seconds > points[i].seconds) {
                slopes.push_back((points[j].value - points[i].value) /
                                 (points[j].seconds - points[i].seconds));
            }
        }
    }
    return slopes.empty() ? 0 : median(slopes);
}

double medianOfFirstThird(const std::vector<Point>& points)
{
    std::vector<double> values;
    for (std::size_t i = 0; i < points.size() / 3; ++i) {
        values.push_back(points[i].value);
    }
    return median(values);
}

std::string text(double number)
{
    return std::to_string(static_cast<long long>(number));
}

Finding judgeMemory(const std::string& what, const std::vector<Point>& points, double growth, double excess,
                    bool judged)
{
    Finding finding;
    finding.what = what;
    finding.first = medianOfFirstThird(points);
    finding.growth = slopeOf(points) * (points.back().seconds - points.front().seconds);
    for (const Point& point : points) {
        finding.most = std::max(finding.most, point.value);
    }
    finding.holds = !judged || (finding.growth <= growth && finding.most <= finding.first + excess);
    finding.limit =
        judged ? "growth " + text(growth) + ", no rest more than " + text(excess) + " above" : "not judged";
    return finding;
}

} // namespace

Holding holdingNow()
{
    Holding holding;
    std::uint64_t size = 0;
    std::uint64_t resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    holding.residentBytes = resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    holding.allocatedBytes = allocated();
    holding.descriptors = entriesOf("/proc/self/fd") - 1; // that of the listing itself
    holding.threads = entriesOf("/proc/self/task");
    return holding;
}

std::vector<Finding> judge(const std::vector<Sample>& samples, const Limits& limits)
{
    if (samples.size() < kFewest) {
        return {{"samples", 0, 0, static_cast<double>(samples.size()), false, "at least 8"}};
    }
    const std::vector<Sample> judged(samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 4),
                                     samples.end());
    const auto pointsOf = [&judged](const std::function<std::uint64_t(const Sample&)>& value) {
        std::vector<Point> points;
        for (const Sample& sample : judged) {
            points.push_back({sample.seconds, static_cast<double>(value(sample))});
        }
        return points;
    };
    std::vector<Finding> findings;
    findings.push_back(judgeMemory("resident bytes",
                                   pointsOf([](const Sample& s) { return s.resting.residentBytes; }),
                                   limits.residentGrowth, limits.residentExcess, limits.judgesResident));
    findings.push_back(judgeMemory("malloc bytes",
                                   pointsOf([](const Sample& s) { return s.resting.allocatedBytes; }),
                                   limits.allocatedGrowth, limits.allocatedExcess, true));
    findings.push_back(judgeMemory("descriptors",
                                   pointsOf([](const Sample& s) { return s.resting.descriptors; }),
                                   limits.descriptorExcess, limits.descriptorExcess, true));
    // The library starts one thread, and no other ever.
    Finding threads;
    threads.what = "threads";
    threads.first = static_cast<double>(judged.front().resting.threads);
    for (const Sample& sample : judged) {
        const auto most = static_cast<double>(std::max(sample.resting.threads, sample.most.threads));
        threads.most = std::max(threads.most, most);
        threads.growth = threads.most - threads.first;
        threads.holds = threads.holds && most == threads.first &&
                        static_cast<double>(sample.resting.threads) == threads.first;
    }
    threads.limit = "always the same";
    findings.push_back(threads);
    return findings;
}
