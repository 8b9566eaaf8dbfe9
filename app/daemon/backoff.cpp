#include "app/daemon/backoff.h"

#include <random>

namespace ZARO::Relay::app {

milliseconds Backoff::Random(milliseconds from, milliseconds to) {
    static std::mt19937 generator{std::random_device{}()};
    return milliseconds(
        std::uniform_int_distribution<milliseconds::rep>(from.count(), to.count())(generator));
}

} // namespace ZARO::Relay::app
