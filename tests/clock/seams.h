#pragma once

#include <ctime>
#include <vector>

/// What the tests put in the place of the outside world. Any thread.
namespace seams {

/// The next reads of any clock; with none left the system answers.
void scriptReads(std::vector<timespec> reads);
std::size_t readsLeft();
/// The clock that was read last since the last call; -1 for none.
clockid_t takeLastClock();

}  // namespace seams
