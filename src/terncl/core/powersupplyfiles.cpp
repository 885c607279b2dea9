#include "powersupplyfiles_p.h"

#include <QDir>
#include <QFile>

#include <optional>

namespace {

// Attribute files hold one short line.
constexpr qint64 maxValueSize = 256;

QByteArray readValue(const QDir& supply, const char* name) {
    QFile file(supply.filePath(QString::fromLatin1(name)));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.read(maxValueSize).trimmed();
}

std::optional<qint64> readNumber(const QDir& supply, const char* name) {
    bool ok = false;
    const qint64 value = readValue(supply, name).toLongLong(&ok);
    return ok ? std::optional<qint64>(value) : std::nullopt;
}

// The charge as a fraction: the capacity in percent, or failing that the energy or charge now
// against full.
std::optional<double> batteryCharge(const QDir& supply) {
    const auto capacity = readNumber(supply, "capacity");
    if (capacity && *capacity >= 0 && *capacity <= 100)
        return *capacity / 100.0;
    for (const auto& [now, full] :
         {std::pair{"energy_now", "energy_full"}, std::pair{"charge_now", "charge_full"}}) {
        const auto nowValue = readNumber(supply, now);
        const auto fullValue = readNumber(supply, full);
        if (nowValue && fullValue && *nowValue >= 0 && *fullValue > 0)
            return qMin(1.0, double(*nowValue) / double(*fullValue));
    }
    return std::nullopt;
}

bool isOnlineMainsSupply(const QDir& supply, const QByteArray& type) {
    return (type == "Mains" || type.startsWith("USB")) && readValue(supply, "online") == "1";
}

} // namespace

PowerSupplyState readPowerSupplyFiles(const QString& root) {
    PowerSupplyState state;
    const QDir rootDir(root);
    double chargeSum = 0;
    int batteries = 0;
    for (const auto& name : rootDir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
        const QDir supply(rootDir.filePath(name));
        // A mouse's or a headset's battery says nothing about the machine.
        if (readValue(supply, "scope") == "Device")
            continue;
        const QByteArray type = readValue(supply, "type");
        if (isOnlineMainsSupply(supply, type))
            state.mainsPower = true;
        if (type != "Battery" || readValue(supply, "present") == "0")
            continue;
        const auto charge = batteryCharge(supply);
        if (!charge)
            continue;
        chargeSum += *charge;
        ++batteries;
        if (readValue(supply, "status") == "Charging")
            state.charging = true;
    }
    if (batteries > 0) {
        state.batteryPresent = true;
        state.level = float(chargeSum / batteries);
    }
    return state;
}
