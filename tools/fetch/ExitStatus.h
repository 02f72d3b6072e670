#pragma once

namespace Halvex::Fetch {

/// What the program answers to whoever started it.
enum ExitStatus : int {
    AllAvailable = 0,  ///< every file is there, or the new manifest was written
    SomeGivenUp = 1,   ///< some are not and each has been named on standard error, or it was not
    BadInput = 2,      ///< the arguments or the manifest were refused; nothing was downloaded
    Interrupted = 130, ///< stopped by a signal; no temporary file is left
};

} // namespace Halvex::Fetch
