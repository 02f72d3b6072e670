#pragma once

#include "Foundation/ioPath.h"

#include <functional>
#include <string>

namespace Halvex::App {

/// The sole use, within this process, of a temporary path: two checks of one resource can run at
/// once, and must not write into each other's file.
///
/// Belongs to the thread that made it.
class PathClaim {
public:
    /// Waits until nobody else holds a claim on the path. While it waits it asks whether to give
    /// up, at least every 50 ms; then the claim is not held. It does not ask when the path is free.
    PathClaim(const ioPath& path, const std::function<bool()>& giveUp);
    ~PathClaim();

    PathClaim(const PathClaim&) = delete;
    PathClaim& operator=(const PathClaim&) = delete;

    /// Whether the claim is held.
    explicit operator bool() const { return m_held; }
    /// Whether the path is that of the claim, however it is spelled.
    bool IsOn(const ioPath& path) const;

private:
    const std::string m_key;
    bool m_held = false;
};

} // namespace Halvex::App
