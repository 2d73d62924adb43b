#pragma once

#include "PrivateRuntime.h"

#include <QApplication>
#include <QTest>

// QTEST_MAIN for the shell's tests: the QApplication starts inside a PrivateRuntime.
template <class TestObject> int runShellTest(int argc, char** argv) {
    PrivateRuntime runtime;
    QApplication app(argc, argv);
    TestObject test;
    return QTest::qExec(&test, argc, argv);
}

#define QUILLMAR_SHELL_TEST_MAIN(TestObject)                                                       \
    int main(int argc, char** argv) {                                                              \
        return runShellTest<TestObject>(argc, argv);                                               \
    }
