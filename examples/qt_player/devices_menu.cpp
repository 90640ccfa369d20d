#include "devices_menu.h"

#include "next_action.h"

DevicesMenu::DevicesMenu(const QString& title, QWidget* parent) : QMenu(title, parent), group_(new QActionGroup(this)) {
    connect(group_, &QActionGroup::triggered, this, [this](const QAction* action) {
        chosen_ = action->data().toString();
        emit chosen(chosen_);
    });
    showDevices({});
}

void DevicesMenu::showDevices(const QStringList& names) {
    clear();
    add(tr("The system's default device"), QStringLiteral("default"));
    for (const QString& name : names) {
        add(QString(name).replace('&', QLatin1String("&&")), name);
    }
    if (!group_->checkedAction()) {
        add(tr("%1 (not there)").arg(chosen_), chosen_);
    }
}

void DevicesMenu::add(const QString& text, const QString& name) {
    QAction* const action = addAction(text);
    action->setCheckable(true);
    action->setData(name);
    group_->addAction(action);
    action->setChecked(name == chosen_);
}

void DevicesMenu::chooseNext() {
    triggerNext(*group_);
}
