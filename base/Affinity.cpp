#include "base/Affinity_p.h"

#include <QThread>

#include <pthread.h>

namespace zavo::platform::affinity {

void broken(const char* method, const QString& expected)
{
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    qFatal("%s must run on %s, but ran on thread \"%s\"", method, qUtf8Printable(expected), name);
}

}  // namespace zavo::platform::affinity
