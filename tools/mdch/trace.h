// The library's trace lines on standard error, each with its time and its severity.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

namespace mdch {

// count: how often -v was given. 1 shows what makes a stream unusable, 2 failures, 3 notices, 4 every call; each
// line stands behind the seconds since this call and the severity's name.
void showTraces(std::int64_t count);

// Called with every trace line, shown or not, by one thread at a time; it must not call streams. Null: nobody.
using TraceObserver = std::function<void(std::string_view line)>;
void observeTraces(TraceObserver observer);

// The same, for failures and what is worse: these cost nothing as long as all goes well.
void observeFailures(TraceObserver observer);

} // namespace mdch
