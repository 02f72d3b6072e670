#include "Arguments.h"

#include <QtCore/QRegularExpression>

std::optional<BundleOfFiles> ParseBundle(const QString& text) {
    // No slash, so that every file lies directly in the folder.
    static const QRegularExpression form(
        QStringLiteral("^([^=]+)=([^=:/,]+(?:,[^=:/,]+)*)(?::([0-9]{1,18}))?$"));
    const QRegularExpressionMatch match = form.match(text);
    if (!match.hasMatch())
        return std::nullopt;
    BundleOfFiles bundle{match.captured(1), match.captured(2).split(QLatin1Char(',')), {}};
    if (!match.captured(3).isEmpty())
        bundle.bytes = match.captured(3).toULongLong();
    return bundle;
}
