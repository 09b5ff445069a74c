#include "WindowPlacement.h"

#include <QGuiApplication>
#include <QScreen>
#include <QStyle>
#include <QWidget>

#include <algorithm>

namespace zavo::demo {

void showPlaced(QWidget* window)
{
    const QScreen* screen = window->screen() ? window->screen() : QGuiApplication::primaryScreen();
    if (!screen) {
        window->show();
        return;
    }
    // Leave room for panels and the title bar: four fifths of the height, and
    // never wider than most of the screen, whichever way the screen is turned.
    const QRect available = screen->availableGeometry();
    int height = available.height() * 4 / 5;
    int width = height * 9 / 16;
    if (width > available.width() * 9 / 10) {
        width = available.width() * 9 / 10;
        height = width * 16 / 9;
    }
    const QSize size(std::max(width, 1), std::max(height, 1));
    window->setGeometry(QStyle::alignedRect(Qt::LeftToRight, Qt::AlignCenter, size, available));
    window->show();
}

}  // namespace zavo::demo
