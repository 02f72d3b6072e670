#pragma once

#include "Foundation/Export.h"
#include "Foundation/ioPath.h"

#include <cstdint>
#include <vector>

namespace Halvex::App {

/// A file that is written under a temporary name and takes its destination's only when complete.
///
/// One thread at a time, caller synchronises. Nothing here throws; failures are logged at ERROR and
/// answered by false. Two that live at once must use different temporary paths.
class HALVEX_EXPORT TemporaryFile {
public:
    /// Removes any file at the temporary path, then any at the destination path. False in a boolean
    /// context if one of them could not be removed.
    TemporaryFile(const ioPath& temporaryPath, const ioPath& destinationPath);
    /// A copy removes the temporary path once more at its end.
    TemporaryFile(const TemporaryFile& other);
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    /// Removes what is at the temporary path; after MoveToDest that is nothing.
    ~TemporaryFile();

    /// Whether both paths were clear after construction.
    // NOLINTNEXTLINE(google-explicit-constructor): a plain conversion is the documented interface
    operator bool() const { return m_valid; }

    /// Moves the finished file onto its destination, its bytes on disk first.
    bool MoveToDest() const;

private:
    ioPath m_temporaryPath;
    ioPath m_destinationPath;
    bool m_valid;
};

/// Whether a file or folder is there; false also when that cannot be told. Never throws or logs.
HALVEX_EXPORT bool FileExists(const ioPath& path);

/// Removes a file; true also when there was none. False, with an ERROR line, when it could not be
/// removed or when it cannot be told whether it is there. Never a folder. Never throws.
HALVEX_EXPORT bool RemoveFile(const ioPath& path);

/// Reads a whole file; the buffer gets exactly its size. False if not all of it could be read, with
/// an ERROR line unless the file has only become shorter meanwhile. Never throws.
HALVEX_EXPORT bool ReadWholeFileToBuffer(const ioPath& path, std::vector<std::uint8_t>& buffer);

} // namespace Halvex::App
