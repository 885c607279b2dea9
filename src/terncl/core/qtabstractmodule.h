#pragma once

#include <terncl/core/abstracterror.h>
#include <terncl/ternclshared_export.h>

#include <QMutex>
#include <QObject>

#include <atomic>

// A unit of the application that is initialized before use and de-initialized before exit.
// Its initialization can fail, ask for a restart or ask the application to exit; the object
// keeps those outcomes. A pass (initialize or de-initialize) runs on the module's thread and
// ends with initializeRunning(false, init); the queries may be read from any thread.
class TERNCL_EXPORT QtAbstractModule : public QObject {
    Q_OBJECT

public:
    explicit QtAbstractModule(QObject* parent = nullptr);
    ~QtAbstractModule() override;

    // The init-failed flag when init is true, the uninit-failed flag otherwise.
    bool initFailed(bool init) const;
    bool needExit() const { return m_needExit; }
    bool needRestart() const { return m_needRestart; }
    bool abortedByUser() const { return m_abortedByUser; }
    bool isInitializeRunning() const { return m_initializeRunning; }
    bool isUnsupportedDeviceError() const { return m_unsupportedDeviceError; }
    // The error of the last failure; code 0 when nothing failed.
    AbstractError error() const;

public Q_SLOTS:
    // Starts an initialize (init true) or de-initialize pass.
    virtual void initialize(bool init) = 0;

Q_SIGNALS:
    void initializeRunning(bool running, bool initializing);

protected:
    // Sets the failed flag of the pass kind and stores the error; with finish, a running pass
    // ends here. The flags are never cleared.
    void setInitFailed(bool init, const AbstractError& error, bool finish);
    // Emits initializeRunning only when the running flag changes.
    void setInitializeRunning(bool running, bool init);
    void setNeedExit(bool needExit) { m_needExit = needExit; }
    void setNeedRestart(bool needRestart) { m_needRestart = needRestart; }
    void setAbortedByUser(bool aborted) { m_abortedByUser = aborted; }
    void setUnsupportedDeviceError(bool unsupported) { m_unsupportedDeviceError = unsupported; }

private:
    std::atomic_bool m_initFailed{false};
    std::atomic_bool m_uninitFailed{false};
    std::atomic_bool m_needExit{false};
    std::atomic_bool m_abortedByUser{false};
    std::atomic_bool m_needRestart{false};
    std::atomic_bool m_initializeRunning{false};
    mutable QMutex m_errorMutex;
    AbstractError m_error;
    std::atomic_bool m_unsupportedDeviceError{false};
};
