#pragma once

#include "Foundation/Export.h"
#include "Foundation/ioPath.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace Halvex::Kit {

/// What a file is to be. What is not given is not looked at.
struct ExpectedFile {
    /// In bytes.
    std::optional<std::uint64_t> size;
    /// 64 hexadecimal digits, upper or lower case; empty: any content.
    std::string sha256;
};

/// What a check has found out about a file.
struct FileFinding {
    enum class Verdict : std::int32_t {
        Good,
        Missing,    ///< nothing is there
        Short,      ///< fewer bytes than expected
        Long,       ///< more bytes than expected
        Different,  ///< as long as expected, if a size was, but with another content
        Unreadable, ///< no regular file, or the system does not let it be read
        Stopped,    ///< the check has been told to stop
    };

    Verdict verdict = Verdict::Good;
    /// For people: "short: 10 bytes instead of 12". Empty for a good file.
    std::string message;
};

/// Asked now and then on the calling thread: true ends a check early.
using StopQuery = std::function<bool()>;

/// Compares a file with what it is to be: its size first, and its content only when the size is
/// right. Reads in pieces of 256 KiB, so that memory does not grow with the file.
///
/// Thread-safe. An empty query is never asked. Throws only what the query throws, and
/// std::bad_alloc.
HALVEX_EXPORT FileFinding CheckFile(const App::ioPath& path, const ExpectedFile& expected,
                                    const StopQuery& stop = {});

/// The SHA-256 of a file's content: 64 digits in lower case. Nothing when it cannot be read, or
/// when the query has answered true. The same in all else.
HALVEX_EXPORT std::optional<std::string> Sha256OfFile(const App::ioPath& path,
                                                      const StopQuery& stop = {});

} // namespace Halvex::Kit
