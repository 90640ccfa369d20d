#include "time_text.h"

#include <algorithm>

#include "player_controller.h"

QString timeText(int ms) {
    const int seconds = std::max(ms, 0) / 1000;
    const QString tail = QStringLiteral("%1").arg(seconds % 60, 2, 10, QLatin1Char('0'));
    if (seconds < 3600) {
        return QStringLiteral("%1:%2").arg(seconds / 60).arg(tail);
    }
    return QStringLiteral("%1:%2:%3").arg(seconds / 3600).arg(seconds / 60 % 60, 2, 10, QLatin1Char('0')).arg(tail);
}

QString durationText(int ms) {
    return ms <= 0 || ms >= PlayerController::kUnknownDurationMs ? QStringLiteral("–:––") : timeText(ms);
}
