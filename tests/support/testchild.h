#pragma once

#include <QString>

// The helper program that stands in for external tools in tests (see testchildprogram.cpp for
// its modes), and a way to check that tests leave no child process behind.
class TestChild {
public:
    // Absolute path of the helper program.
    static QString program();
    // Copies the helper into folder as "fake-<mode>" (with the platform's executable suffix), so
    // that a tool run by a fixed name behaves as mode. Returns the file name, or an empty
    // string on failure.
    static QString makeFakeTool(const QString& folder, const QString& mode);
    // Children of this process that are still running (zombies not counted), or -1 where the
    // platform does not tell.
    static int runningChildCount();
};
