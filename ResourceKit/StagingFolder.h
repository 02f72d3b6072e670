#pragma once

#include "ResourceKit/Complaint.h"
#include "ResourceKit/FileDescriptor.h"

#include <functional>
#include <string>

namespace Halvex::Kit {

/// A new folder beside another one, the target, whose place it takes when it is complete.
///
/// It is locked for as long as this object lives, so that others can tell it from what a crashed
/// process has left. One thread at a time, caller synchronises.
class StagingFolder {
public:
    StagingFolder() = default;
    /// Removes what bears the staging folder's name: itself, or the old content of the target.
    ~StagingFolder();

    StagingFolder(const StagingFolder&) = delete;
    StagingFolder& operator=(const StagingFolder&) = delete;

    /// Makes the folder. Before that it clears away what crashed processes have left, and puts the
    /// target back if one of them had just moved it aside. To be called once, and first.
    Complaint Make(const std::string& target);

    /// Of the folder.
    int Descriptor() const { return m_folder.Get(); }

    /// Waits until all that was written is on disk, and lets the folder take the target's place.
    Complaint TakePlace();

private:
    Complaint OpenParent(const std::string& target);
    Complaint MakeLocked();
    Complaint Exchange();
    bool MoveAside(std::string& newName);
    bool MakeFolder(std::string& name) const;
    void ClearLeftOvers() const;
    void ForEachUnused(const std::string& prefix,
                       const std::function<void(const std::string& name)>& action) const;
    bool HasTarget() const;
    void Remove(const std::string& name) const;

    /// With the slash that a name in it follows.
    std::string m_parentPath;
    FileDescriptor m_parent;
    /// The target's name in the parent folder.
    std::string m_target;
    /// Of staging folders for the target, and of targets that have been moved aside; six characters
    /// follow.
    std::string m_prefix;
    std::string m_asidePrefix;
    /// Empty: there is nothing to remove.
    std::string m_name;
    /// Holds the lock.
    FileDescriptor m_folder;
    /// The old content of the target, where folders cannot be exchanged: locked as well, so that
    /// nobody takes it for something left while it may have to go back.
    FileDescriptor m_old;
};

} // namespace Halvex::Kit
