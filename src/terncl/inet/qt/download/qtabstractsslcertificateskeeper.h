#pragma once

#include <terncl/ternclshared_export.h>

#include <QList>
#include <QObject>
#include <QSslCertificate>

// The store of certificates the application trusts beyond the system's.
class TERNCL_EXPORT QtAbstractSslCertificatesKeeper : public QObject {
    Q_OBJECT

public:
    explicit QtAbstractSslCertificatesKeeper(QObject* parent = nullptr);

    virtual QList<QSslCertificate> certificates() const = 0;
    virtual bool contains(const QSslCertificate& certificate) const = 0;
    virtual void addCertificate(const QSslCertificate& certificate) = 0;
    virtual void removeCertificate(const QSslCertificate& certificate) = 0;
};
