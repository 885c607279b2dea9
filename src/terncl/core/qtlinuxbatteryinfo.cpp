#include "qtlinuxbatteryinfo.h"

#include "powersupplyfiles_p.h"
#include "upowerpropertiesproxy_p.h"

#include <QDBusConnection>
#include <QDBusPendingCallWatcher>

namespace {
const auto devicePath = QStringLiteral("/org/freedesktop/UPower/devices/DisplayDevice");
const auto managerPath = QStringLiteral("/org/freedesktop/UPower");
const auto deviceInterface = QStringLiteral("org.freedesktop.UPower.Device");
const auto managerInterface = QStringLiteral("org.freedesktop.UPower");

// Values of UPower's Device.Type and Device.State.
constexpr uint batteryType = 2;
constexpr uint chargingState = 1;
} // namespace

const QString QtLinuxBatteryInfo::defaultPowerSupplyRoot =
    QStringLiteral("/sys/class/power_supply");

// The connection to UPower and the last values of its display device and of the service.
struct QtLinuxBatteryInfo::UPower {
    explicit UPower(const QString& busAddress)
        : connectionName(busAddress.isEmpty()
                             ? QString()
                             : QStringLiteral("terncl-battery-%1").arg(quintptr(this)))
        , bus(busAddress.isEmpty() ? QDBusConnection::systemBus()
                                   : QDBusConnection::connectToBus(busAddress, connectionName)) {}

    ~UPower() {
        device.reset();
        manager.reset();
        if (!connectionName.isEmpty())
            QDBusConnection::disconnectFromBus(connectionName);
    }

    const QString connectionName;
    QDBusConnection bus;
    std::unique_ptr<UPowerPropertiesProxy> device;
    std::unique_ptr<UPowerPropertiesProxy> manager;
    QVariantMap deviceProperties;
    QVariantMap managerProperties;
};

QtLinuxBatteryInfo::QtLinuxBatteryInfo(QObject* parent)
    : QtLinuxBatteryInfo(QString(), defaultPowerSupplyRoot, defaultPollIntervalMs, parent) {}

QtLinuxBatteryInfo::QtLinuxBatteryInfo(const QString& busAddress, const QString& powerSupplyRoot,
                                       int pollIntervalMs, QObject* parent)
    : QtAbstractBatteryInfo(parent)
    , m_powerSupplyRoot(powerSupplyRoot) {
    m_pollTimer.setSingleShot(true);
    m_pollTimer.setInterval(pollIntervalMs);
    connect(&m_pollTimer, &QTimer::timeout, this, &QtLinuxBatteryInfo::readPowerSupplyFiles);
    connectToUPower(busAddress);
}

QtLinuxBatteryInfo::~QtLinuxBatteryInfo() = default;

void QtLinuxBatteryInfo::connectToUPower(const QString& busAddress) {
    m_upower = std::make_unique<UPower>(busAddress);
    if (!m_upower->bus.isConnected()) {
        usePowerSupplyFiles();
        return;
    }
    m_upower->device = std::make_unique<UPowerPropertiesProxy>(devicePath, m_upower->bus);
    m_upower->manager = std::make_unique<UPowerPropertiesProxy>(managerPath, m_upower->bus);
    // Subscribed before the first values are asked for, so that no change falls in between.
    for (const bool device : {true, false}) {
        connect((device ? m_upower->device : m_upower->manager).get(),
                &UPowerPropertiesProxy::PropertiesChanged, this,
                [this, device](const QString& interface, const QVariantMap& changed,
                               const QStringList& invalidated) {
                    onUPowerPropertiesChanged(device, interface, changed, invalidated);
                });
        fetchUPowerProperties(device);
    }
}

// The display device's answer decides between UPower and the files; the service's own answer
// (whether it runs on battery) only adds to it.
void QtLinuxBatteryInfo::fetchUPowerProperties(bool device) {
    auto& proxy = device ? m_upower->device : m_upower->manager;
    auto* watcher = new QDBusPendingCallWatcher(
        proxy->getAll(device ? deviceInterface : managerInterface), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, device](QDBusPendingCallWatcher* call) {
                call->deleteLater();
                const QDBusPendingReply<QVariantMap> reply = *call;
                if (!m_upower || !m_upower->device)
                    return;
                if (reply.isError()) {
                    if (device && m_source == Source::Pending)
                        usePowerSupplyFiles();
                    return;
                }
                (device ? m_upower->deviceProperties : m_upower->managerProperties) = reply.value();
                if (device)
                    m_source = Source::UPower;
                publishUPowerState();
            });
}

void QtLinuxBatteryInfo::onUPowerPropertiesChanged(bool device, const QString& interface,
                                                   const QVariantMap& changed,
                                                   const QStringList& invalidated) {
    if (interface != (device ? deviceInterface : managerInterface))
        return;
    auto& properties = device ? m_upower->deviceProperties : m_upower->managerProperties;
    for (auto i = changed.cbegin(); i != changed.cend(); ++i)
        properties.insert(i.key(), i.value());
    // Invalidated properties are announced without their values: ask for them all again.
    if (!invalidated.isEmpty())
        fetchUPowerProperties(device);
    publishUPowerState();
}

void QtLinuxBatteryInfo::publishUPowerState() {
    if (m_source != Source::UPower)
        return;
    const auto& device = m_upower->deviceProperties;
    const bool present = device.value(QStringLiteral("Type")).toUInt() == batteryType &&
                         device.value(QStringLiteral("IsPresent")).toBool();
    const bool charging =
        present && device.value(QStringLiteral("State")).toUInt() == chargingState;
    const double percentage = device.value(QStringLiteral("Percentage")).toDouble();
    const float level = present ? float(qBound(0.0, percentage / 100.0, 1.0)) : 1.0f;
    const auto onBattery = m_upower->managerProperties.value(QStringLiteral("OnBattery"));
    store(present, charging, onBattery.isValid() && !onBattery.toBool(), level);
}

void QtLinuxBatteryInfo::usePowerSupplyFiles() {
    m_upower.reset();
    m_source = Source::PowerSupplyFiles;
    readPowerSupplyFiles();
}

void QtLinuxBatteryInfo::readPowerSupplyFiles() {
    const PowerSupplyState state = ::readPowerSupplyFiles(m_powerSupplyRoot);
    // Like the Windows power status: without a battery there is nothing worth following.
    if (state.batteryPresent)
        m_pollTimer.start();
    store(state.batteryPresent, state.charging, state.mainsPower, state.level);
}

void QtLinuxBatteryInfo::store(bool present, bool charging, bool mains, float level) {
    if (present == m_batteryPresent && charging == m_charging && mains == m_mainsPower &&
        level == m_level)
        return;
    m_batteryPresent.exchange(present);
    m_charging.exchange(charging);
    m_mainsPower.exchange(mains);
    m_level.exchange(level);
    Q_EMIT changed();
}
