#pragma once

namespace Halvex::Fetch {

/// What the program answers to whoever started it.
enum ExitStatus : int {
    AllAvailable = 0,  ///< every file is there, or the new manifest was written
    SomeGivenUp = 1,   ///< some are not, each named on standard error; or no manifest was written
    BadInput = 2,      ///< the arguments or the manifest were refused; nothing was downloaded
    Interrupted = 130, ///< stopped by a signal; no temporary file is left
};

} // namespace Halvex::Fetch
