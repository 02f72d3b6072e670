#pragma once

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <cstdint>
#include <optional>
#include <vector>

/// Files that the application needs together, and how they are called in its window.
struct BundleOfFiles {
    QString name;
    QStringList files;
    /// The size of them all, when it is known.
    std::optional<std::uint64_t> bytes;
};

/// What the program is told on its command line.
struct Arguments {
    QString baseUrl;
    /// Where the files go. It must exist.
    QString folder;
    /// Without it the application cannot begin its work.
    BundleOfFiles startup;
    std::vector<BundleOfFiles> others;
};

/// From "NAME=FILE,FILE" or "NAME=FILE,FILE:BYTES"; nothing if that is not what the text says. A
/// file is a plain name.
std::optional<BundleOfFiles> ParseBundle(const QString& text);
