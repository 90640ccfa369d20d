#pragma once

class QApplication;

// Dark colours, so that the picture is the brightest thing on the screen.
void applyTheme(QApplication& application);
