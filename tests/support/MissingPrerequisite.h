#pragma once
// A test that cannot run because a tool or a data file is missing says so. On
// a developer's machine that is a skip; in CI, which installs everything the
// suite needs, it is a failure, so that a broken install step cannot turn
// checks into green skips. CI sets ZAVO_TESTS_REQUIRE_ALL=1.
//
// Only for what an install provides. A test that needs real hardware (a V4L2
// device on the machine) or a privilege the machine may not grant keeps a
// plain QSKIP with its reason.
#include <QtGlobal>
#include <QtTest/QTest>

namespace zavo::testing {

inline bool everyPrerequisiteRequired()
{
    return qEnvironmentVariableIntValue("ZAVO_TESTS_REQUIRE_ALL") != 0;
}

} // namespace zavo::testing

#define ZAVO_SKIP_MISSING(reason)                                                          \
    do {                                                                                   \
        if (zavo::testing::everyPrerequisiteRequired())                                    \
            QFAIL(qPrintable(QStringLiteral("missing under ZAVO_TESTS_REQUIRE_ALL: ")     \
                             + QString::fromUtf8(reason)));                                \
        QSKIP(reason);                                                                     \
    } while (false)
