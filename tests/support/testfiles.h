#pragma once

#include <QByteArray>
#include <QString>

// Whole-file reads and writes for tests.

// The file's bytes, or "<missing>" when it cannot be read (so that an absent file never
// compares equal to an empty one).
QByteArray readFile(const QString& path);
// Writes data as the whole file, creating missing folders; false on any failure.
bool writeFile(const QString& path, const QByteArray& data);
// Writes a shell script (text after "#!/bin/sh\n") that its owner may run; false on failure.
bool writeScript(const QString& path, const QByteArray& text);
