#include "BundleDelegate.h"

#include <ResourceKit/ResourceListModel.h>

#include <QtGui/QPainter>
#include <QtWidgets/QApplication>
#include <QtWidgets/QStyleOptionProgressBar>

using Halvex::Kit::ResourceListModel;

namespace {

constexpr int kMargin = 10;
constexpr int kBarHeight = 14;
constexpr int kGap = 4;
constexpr QColor kErrorColor(176, 32, 32);

} // namespace

void BundleDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                           const QModelIndex& index) const {
    const QRect area = option.rect.adjusted(kMargin, kMargin, -kMargin, -kMargin);
    const int textHeight = option.fontMetrics.height();
    const QRect nameArea(area.left(), area.top(), area.width(), textHeight);
    const QRect barArea(area.left(), nameArea.bottom() + 1 + kGap, area.width(), kBarHeight);
    const QRect summaryArea(area.left(), barArea.bottom() + 1 + kGap, area.width(), textHeight);

    painter->save();
    QFont bold = option.font;
    bold.setBold(true);
    painter->setFont(bold);
    painter->drawText(nameArea, Qt::AlignLeft, index.data(ResourceListModel::NameRole).toString());

    QStyleOptionProgressBar bar;
    bar.rect = barArea;
    bar.palette = option.palette;
    bar.state = QStyle::State_Enabled | QStyle::State_Horizontal;
    bar.maximum = 1000;
    bar.progress =
        static_cast<int>(index.data(ResourceListModel::ProgressRole).toDouble() * bar.maximum);
    QApplication::style()->drawControl(QStyle::CE_ProgressBar, &bar, painter);

    const bool hasError = !index.data(ResourceListModel::ErrorTextRole).toString().isEmpty();
    painter->setFont(option.font);
    painter->setPen(hasError ? kErrorColor : option.palette.color(QPalette::Text));
    painter->drawText(summaryArea, Qt::AlignLeft,
                      index.data(ResourceListModel::SummaryRole).toString());
    painter->restore();
}

QSize BundleDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const {
    constexpr int kLeastWidth = 300;
    return {kLeastWidth, 2 * (kMargin + option.fontMetrics.height() + kGap) + kBarHeight};
}
