#include "signalrecorder.h"

namespace {
QString listText(const QVariantList& list) {
    QStringList items;
    for (const auto& item : list)
        items.append(item.toString());
    return QStringLiteral("[") + items.join(QStringLiteral(",")) + QStringLiteral("]");
}
} // namespace

void SignalRecorder::append(const QString& name, const QVariantList& args) {
    QStringList texts;
    for (const auto& arg : args) {
        if (arg.canConvert<QString>())
            texts.append(arg.toString());
        else if (arg.canConvert<QVariantList>())
            texts.append(listText(arg.value<QVariantList>()));
        else
            texts.append(QString::fromLatin1(arg.typeName()));
    }
    m_events.append(name + QStringLiteral("(") + texts.join(QStringLiteral(", ")) +
                    QStringLiteral(")"));
}
