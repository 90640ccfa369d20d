#pragma once

// The speeds that the keys step through, 0.5 to 4: the next one above or below `speed`, or `speed` itself at an end.
double fasterThan(double speed);
double slowerThan(double speed);
