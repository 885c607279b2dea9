#pragma once

#include <terncl/ternclshared_export.h>

#include <QCoreApplication>
#include <QMetaType>
#include <QString>

// The rules that turn a name from the network into a safe, free path on disk: sanitizing,
// extensions that know about compressed tarballs, unique names that never overwrite, the
// ".unwanted" folder of deselected files and long paths for the operating system. Stateless:
// every function may be called from any thread.
class TERNCL_EXPORT FileNameRules {
    Q_DECLARE_TR_FUNCTIONS(FileNameRules)

public:
    // A free path and the number put into it (0 when the path was free as given).
    struct UniqueName {
        QString path;
        int number = 0;
    };

    // Replaces each run of characters that file systems reject with the replacement text, turns
    // a bare device name ("COM1", "nul") into the replacement, drops trailing spaces and dots and,
    // with limitLength, cuts the name to 248 characters just before its first dot so that a
    // compound extension survives. An empty replacement drops the offending characters.
    static QString sanitizedFileName(const QString& name, bool limitLength,
                                     const QString& replacement);

    // The extension without its dot: "tar.gz" for "a.b.tar.gz", "zip" for "a.b.zip".
    static QString fileExtension(const QString& fileNameOrPath);

    // A path that exists neither with nor without the suffix. With startIndex 0 a free path is
    // returned as it is; otherwise " (N)" (or "(N)" with noSpace) is put before the extension,
    // N counting up from startIndex (from 1 when it is 0). A path already numbered " (N)"
    // continues its numbering only when 1 to N-1 are all taken; otherwise the numbered name
    // gets a number of its own ("report (3) (1).txt").
    static UniqueName uniqueFileName(const QString& path, const QString& suffix, int startIndex,
                                     bool noSpace);

    // Moves a relative path (forward slashes) into the ".unwanted" folder just below its first
    // component, or back out of it. A path already in the asked state is returned unchanged.
    static QString unwantedFolderPath(const QString& relativePath, bool unwanted);

    // The path in native separators, ready for the operating system. On Windows a path of 260
    // characters or more that does not start with a separator gets the "\\?\" prefix.
    static QString nativeLongPath(const QString& path);

    // The Windows form of nativeLongPath on every platform: backslashes, and the "\\?\" prefix
    // under the same condition. Lets the rule be checked and used where Windows paths are built.
    static QString windowsLongPath(const QString& path);
};

Q_DECLARE_METATYPE(FileNameRules::UniqueName)
