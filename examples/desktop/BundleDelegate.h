#pragma once

#include <QtWidgets/QStyledItemDelegate>

/// Paints a row of a ResourceListModel: the name, a progress bar, and how it goes.
class BundleDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
};
