// The smallest program a host's build makes against the installed package:
// one public header, one call into the component's own library. Both the
// pkg-config build and the CMake build (cmake-host/) compile this file.
#include <camera-screen/ZMCameraError.h>

#include <QCoreApplication>
#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QString text = zavo::ZMCameraError::canceled().localizedDescription();
    std::printf("%s\n", qPrintable(text));
    return text.isEmpty() ? 1 : 0;
}
