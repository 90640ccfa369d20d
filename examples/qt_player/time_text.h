#pragma once

#include <QString>

// Milliseconds as 1:05, or 1:01:05 from an hour on.
QString timeText(int ms);

// The same, or a dash for a source that doesn't state a duration.
QString durationText(int ms);
