#pragma once

#include <QMetaType>
#include <QString>
#include <QUrl>

// A library that a download module brings with it, for the application's about box.
struct ThirdPartyLibInfo {
    QString name;
    QString version;
    QString license; // its short name, such as "LGPL-2.1-or-later"
    QUrl homePage;
};

Q_DECLARE_METATYPE(ThirdPartyLibInfo)
