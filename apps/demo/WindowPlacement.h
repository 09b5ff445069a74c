#pragma once
// Where the demo's windows open on a desktop.
class QWidget;

namespace zavo::demo {

/// Sizes window as a phone-shaped portrait (9:16) as tall as most of the
/// screen it opens on allows, centres it there, and shows it. The window
/// stays resizable; the camera screen fills whatever shape it is given.
void showPlaced(QWidget* window);

}  // namespace zavo::demo
