#pragma once

#include "Foundation/Export.h"

#include <iosfwd>
#include <string>

namespace Halvex {

/// The path of a file or folder, as UTF-8 text that is kept to the letter.
///
/// A value: copied freely, one thread at a time for changes. Only exists, remove and rename touch
/// the disk; what they throw is Halvex::Exception with the system's error number and text.
class HALVEX_EXPORT ioPath {
public:
    /// The empty path, which names nothing.
    ioPath() = default;
    /// Implicit: a text is how a path is commonly written.
    ioPath(std::string text); // NOLINT(google-explicit-constructor): meant to convert
    ioPath(const char* text); // NOLINT(google-explicit-constructor): meant to convert

    /// The path of the right side below the left one. An empty side gives the other one; otherwise
    /// exactly one separator stands between the two, so that a right side that begins with a
    /// separator stays below the left one.
    ioPath operator/(const ioPath& right) const;

    bool empty() const { return m_text.empty(); }

    /// Whether a file or a folder is there (a link counts as what it leads to). Throws when that
    /// cannot be told: no permission to look, a path that is too long, a zero byte in it.
    bool exists() const;

    /// Removes a file, or a link itself and not what it leads to; never a folder.
    /// True: removed; false: nothing was there. Throws when it could not be removed.
    bool remove() const;

    /// Moves a file (not a link) to another path and replaces a file that is there. The bytes are
    /// on disk before the new name is, so that after a power cut the file is there whole or not at
    /// all. To another file system it is copied under a name of its own beside the destination
    /// first: there too the destination appears whole, at once. Throws on failure; the destination
    /// is then as it was.
    static void rename(const ioPath& from, const ioPath& to);

    /// The text that the path was made from.
    std::string string() const { return m_text; }

private:
    friend HALVEX_EXPORT bool operator==(const ioPath& left, const ioPath& right);
    friend HALVEX_EXPORT bool operator!=(const ioPath& left, const ioPath& right);
    /// The order of the texts, byte by byte.
    friend HALVEX_EXPORT bool operator<(const ioPath& left, const ioPath& right);
    /// Writes the plain text, without quotes.
    friend HALVEX_EXPORT std::ostream& operator<<(std::ostream& stream, const ioPath& path);

    std::string m_text;
};

HALVEX_EXPORT bool operator==(const ioPath& left, const ioPath& right);
HALVEX_EXPORT bool operator!=(const ioPath& left, const ioPath& right);
HALVEX_EXPORT bool operator<(const ioPath& left, const ioPath& right);
HALVEX_EXPORT std::ostream& operator<<(std::ostream& stream, const ioPath& path);

namespace App {
using Halvex::ioPath;
}

} // namespace Halvex
