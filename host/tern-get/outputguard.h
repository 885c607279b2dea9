#pragma once

#include <QString>

// Keeps tern-get from harming whatever is at its output path. Only a regular file (or nothing)
// may be there; the finished data reaches it by one rename(2) of the staged file over it, so the
// old file stays whole until the new one is complete and stays in place when the rename fails;
// and a lock beside the state records lets one run at a time write to a given output. Main
// thread; the lock is held until unlock() or destruction.
class OutputGuard {
public:
    OutputGuard() = default;
    ~OutputGuard();
    OutputGuard(const OutputGuard&) = delete;
    OutputGuard& operator=(const OutputGuard&) = delete;

    // Why path cannot be an output (something other than a regular file is there, at the path
    // or at its ".part"), or an empty string when it can.
    static QString refusal(const QString& path);

    // Takes the lock for output, made in stateDir. False, with a text for the user, when another
    // run holds it or the lock file cannot be made.
    bool lock(const QString& stateDir, const QString& output, QString* error);
    // Removes the lock file and releases the lock.
    void unlock();
    bool isLocked() const { return m_fd >= 0; }

    // Renames staged over output once output has been checked again. On failure nothing at
    // output has changed and error says why.
    static bool replace(const QString& staged, const QString& output, QString* error);

private:
    int m_fd = -1;
    QString m_lockPath;
};
