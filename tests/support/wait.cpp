#include "support/wait.h"

#include <algorithm>
#include <thread>

namespace rtls {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

bool wait_until(const std::function<bool()>& condition, milliseconds time)
{
    return repeat_until(
        condition, [] { std::this_thread::sleep_for(milliseconds(1)); }, time);
}

bool repeat_until(const std::function<bool()>& done, const std::function<void()>& step, milliseconds time)
{
    const auto deadline = steady_clock::now() + time;
    while (!done()) {
        if (steady_clock::now() > deadline)
            return false;
        step();
    }
    return true;
}

milliseconds left_until(steady_clock::time_point deadline)
{
    return std::max(std::chrono::ceil<milliseconds>(deadline - steady_clock::now()), milliseconds(0));
}

} // namespace rtls
