#pragma once

#include <cstddef>

namespace Halvex::Fetch {

/// Raises how many files the process may have open to what so many downloads at a time need, as far
/// as the system allows. Answers how many downloads there is room for then, at least one and at
/// most those asked for.
std::size_t MakeRoomForDownloads(std::size_t downloads);

} // namespace Halvex::Fetch
