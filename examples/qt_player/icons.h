#pragma once

#include <QColor>
#include <QIcon>

// The signs on the buttons, drawn here: a desktop without an icon theme has none.
enum class Sign { Play, Pause, Stop, Loud, Muted, FullScreen, SecondWindow, Options, Log, Open, Record };

QIcon signIcon(Sign sign, const QColor& color);
