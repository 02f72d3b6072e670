// A window that starts when what it needs is there, and shows how the other downloads go.
#include "Arguments.h"
#include "Downloads.h"
#include "Window.h"

#include <QtCore/QCommandLineParser>
#include <QtWidgets/QApplication>

namespace {

/// Ends the program when that is not what they should be.
Arguments ParseArguments(const QApplication& application) {
    QCommandLineParser parser;
    const QCommandLineOption folder(QStringLiteral("folder"),
                                    QStringLiteral("Where the files go; it must exist."),
                                    QStringLiteral("folder"), QStringLiteral("."));
    parser.addOption(folder);
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("url"),
                                 QStringLiteral("Where all files lie: http://host/folder"));
    parser.addPositionalArgument(
        QStringLiteral("bundles"),
        QStringLiteral("NAME=FILE,FILE or, with the size of all its files, NAME=FILE,FILE:BYTES. "
                       "The first one is needed to start."),
        QStringLiteral("bundle..."));
    parser.process(application);

    QStringList positional = parser.positionalArguments();
    if (positional.size() < 2)
        parser.showHelp(2);
    Arguments arguments{positional.takeFirst(), parser.value(folder), {}, {}};
    for (const QString& text : positional) {
        const std::optional<BundleOfFiles> bundle = ParseBundle(text);
        if (!bundle)
            parser.showHelp(2);
        arguments.others.push_back(*bundle);
    }
    arguments.startup = arguments.others.front();
    arguments.others.erase(arguments.others.begin());
    return arguments;
}

} // namespace

int main(int argc, char** argv) {
    const QApplication application(argc, argv);
    Downloads downloads(ParseArguments(application));
    Window window(downloads);
    window.show();
    downloads.Start();
    return QApplication::exec();
}
