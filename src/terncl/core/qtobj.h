#pragma once

#include <terncl/ternclshared_export.h>

#include <QObject>

// The root of the library's QObject classes, so that any of them is recognised by
// qobject_cast<QtObj*>.
class TERNCL_EXPORT QtObj : public QObject {
    Q_OBJECT

public:
    explicit QtObj(QObject* parent = nullptr);
    ~QtObj() override;
};
