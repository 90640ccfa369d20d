#pragma once

#include <QActionGroup>

// As if the entry behind the checked one were clicked, or the first one behind the last.
inline void triggerNext(const QActionGroup& group) {
    const QList<QAction*> actions = group.actions();
    if (actions.size() > 1) {
        actions[(actions.indexOf(group.checkedAction()) + 1) % actions.size()]->trigger();
    }
}
