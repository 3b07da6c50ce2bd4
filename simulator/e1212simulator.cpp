// SPDX-License-Identifier: MIT
// A simulated ioLogik E1212 answering Modbus TCP, with fault controls for tests.
#include "e1212simulator.h"

#include "simulatorfaultproxy.h"
#include "simulatormodbusserver.h"

#include <QLoggingCategory>
#include <QModbusDataUnitMap>
#include <QTimer>

Q_LOGGING_CATEGORY(lcSim, "e1212.sim")

namespace {
constexpr int CoilCount = E1212Simulator::PulseStatusBase + E1212Simulator::ChannelCount;
constexpr int HoldingCount = E1212Simulator::PulseOffWidthBase + E1212Simulator::ChannelCount
    - E1212Simulator::PulseOnWidthBase;
constexpr int InputRegisterCount = E1212Simulator::FirmwareAddress + 4 - E1212Simulator::ModelNameAddress;

const char c_modelName[] = "E1212";
const char c_defaultMac[] = "\x00\x90\xE8\x12\x34\x56";
// b0.b1.b2 version, b3 unused, b4..b7 build date digits.
const quint8 c_firmware[8] = {3, 2, 1, 0, 23, 4, 17, 9};

bool validChannel(int channel)
{
    return channel >= 0 && channel < E1212Simulator::ChannelCount;
}
} // namespace

E1212Simulator::E1212Simulator(QObject *parent)
    : QObject(parent)
    , m_server(new SimulatorModbusServer(this))
    , m_proxy(new SimulatorFaultProxy(this))
    , m_lastOutputs(ChannelCount, false)
{
    qRegisterMetaType<E1212Simulator::State>();
    QModbusDataUnitMap map;
    map.insert(QModbusDataUnit::DiscreteInputs, {QModbusDataUnit::DiscreteInputs, 0, ChannelCount});
    map.insert(QModbusDataUnit::Coils, {QModbusDataUnit::Coils, 0, CoilCount});
    map.insert(QModbusDataUnit::HoldingRegisters,
               {QModbusDataUnit::HoldingRegisters, PulseOnWidthBase, HoldingCount});
    map.insert(QModbusDataUnit::InputRegisters,
               {QModbusDataUnit::InputRegisters, ModelNameAddress, InputRegisterCount});
    m_server->setMap(map);

    const QByteArray model(c_modelName);
    for (int word = 0; word < ModelNameWords; ++word) {
        const quint8 high = word * 2 < model.size() ? quint8(model.at(word * 2)) : 0;
        const quint8 low = word * 2 + 1 < model.size() ? quint8(model.at(word * 2 + 1)) : 0;
        m_server->setData(QModbusDataUnit::InputRegisters, quint16(ModelNameAddress + word),
                          quint16(high << 8 | low));
    }
    setMacAddress(QByteArray(c_defaultMac, 6));
    for (int word = 0; word < 4; ++word)
        m_server->setData(QModbusDataUnit::InputRegisters, quint16(FirmwareAddress + word),
                          quint16(c_firmware[word * 2] << 8 | c_firmware[word * 2 + 1]));
    for (int channel = 0; channel < ChannelCount; ++channel) {
        m_server->setData(QModbusDataUnit::HoldingRegisters, quint16(PulseOnWidthBase + channel), 1);
        m_server->setData(QModbusDataUnit::HoldingRegisters, quint16(PulseOffWidthBase + channel), 1);
        auto *timer = new QTimer(this);
        timer->setSingleShot(true);
        timer->setTimerType(Qt::PreciseTimer);
        connect(timer, &QTimer::timeout, this, [this, channel] { pulsePhase(channel); });
        m_pulseTimers.append(timer);
    }

    connect(m_server, &QModbusServer::dataWritten, this, &E1212Simulator::onDataWritten);
    connect(m_proxy, &SimulatorFaultProxy::connectionCountChanged, this,
            &E1212Simulator::connectionCountChanged);
    connect(m_proxy, &SimulatorFaultProxy::connectionRefused, this, &E1212Simulator::connectionRefused);
    connect(m_proxy, &SimulatorFaultProxy::requestServed, this, &E1212Simulator::requestServed);
}

E1212Simulator::~E1212Simulator()
{
    stop();
}

bool E1212Simulator::start(const QHostAddress &address, quint16 port, QString *error)
{
    if (m_state == Running)
        stop();
    QString message;
    // The Modbus server sits behind the fault proxy on a private loopback port.
    m_server->setConnectionParameter(QModbusDevice::NetworkAddressParameter, QStringLiteral("127.0.0.1"));
    m_server->setConnectionParameter(QModbusDevice::NetworkPortParameter, 0);
    m_server->setServerAddress(1);
    if (!m_server->connectDevice() || m_server->listeningPort() == 0) {
        message = QStringLiteral("cannot start the Modbus server: %1").arg(m_server->errorString());
    } else if (m_proxy->listen(address, port, m_server->listeningPort(), &message)) {
        m_address = address;
        m_errorString.clear();
        m_server->resetRequestCount();
        qCInfo(lcSim) << "E1212 simulator listening on" << address.toString() << m_proxy->port();
        setState(Running);
        return true;
    }
    m_server->disconnectDevice();
    m_errorString = message;
    qCWarning(lcSim).noquote() << message;
    if (error)
        *error = message;
    return false;
}

void E1212Simulator::stop()
{
    m_proxy->close();
    m_server->disconnectDevice();
    setState(Stopped);
}

quint16 E1212Simulator::port() const
{
    return m_proxy->port();
}

void E1212Simulator::setState(State state)
{
    if (m_state == state)
        return;
    m_state = state;
    emit stateChanged(state);
}

QString E1212Simulator::modelName()
{
    return QString::fromLatin1(c_modelName);
}

QString E1212Simulator::macAddress() const
{
    QStringList bytes;
    for (int word = 0; word < 3; ++word) {
        const quint16 value = this->value(QModbusDataUnit::InputRegisters, MacAddressAddress + word);
        bytes << QStringLiteral("%1").arg(value >> 8, 2, 16, QLatin1Char('0')).toUpper()
              << QStringLiteral("%1").arg(value & 0xFF, 2, 16, QLatin1Char('0')).toUpper();
    }
    return bytes.join(QLatin1Char(':'));
}

bool E1212Simulator::setMacAddress(const QByteArray &bytes)
{
    if (bytes.size() != 6)
        return false;
    for (int word = 0; word < 3; ++word)
        setValue(QModbusDataUnit::InputRegisters, MacAddressAddress + word,
                 quint16(quint8(bytes.at(word * 2)) << 8 | quint8(bytes.at(word * 2 + 1))));
    return true;
}

QString E1212Simulator::firmwareVersion()
{
    QString build = QStringLiteral("Build");
    for (int i = 4; i < 8; ++i)
        build += QStringLiteral("%1").arg(c_firmware[i], 2, 10, QLatin1Char('0'));
    return QStringLiteral("V%1.%2.%3 ").arg(c_firmware[0]).arg(c_firmware[1]).arg(c_firmware[2]) + build;
}

bool E1212Simulator::readBit(QModbusDataUnit::RegisterType table, int address) const
{
    return value(table, address) != 0;
}

void E1212Simulator::writeBit(QModbusDataUnit::RegisterType table, int address, bool on)
{
    setValue(table, address, on ? 1 : 0);
}

bool E1212Simulator::input(int channel) const
{
    return validChannel(channel) && readBit(QModbusDataUnit::DiscreteInputs, channel);
}

void E1212Simulator::setInput(int channel, bool on)
{
    if (validChannel(channel))
        writeBit(QModbusDataUnit::DiscreteInputs, channel, on);
}

bool E1212Simulator::output(int channel) const
{
    return validChannel(channel) && readBit(QModbusDataUnit::Coils, channel);
}

void E1212Simulator::setOutput(int channel, bool on)
{
    if (validChannel(channel))
        writeBit(QModbusDataUnit::Coils, channel, on);
}

bool E1212Simulator::pulseStatus(int channel) const
{
    return validChannel(channel) && readBit(QModbusDataUnit::Coils, PulseStatusBase + channel);
}

void E1212Simulator::setPulseStatus(int channel, bool on)
{
    if (validChannel(channel))
        writeBit(QModbusDataUnit::Coils, PulseStatusBase + channel, on);
}

quint16 E1212Simulator::pulseOnWidth(int channel) const
{
    return validChannel(channel) ? value(QModbusDataUnit::HoldingRegisters, PulseOnWidthBase + channel) : 0;
}

quint16 E1212Simulator::pulseOffWidth(int channel) const
{
    return validChannel(channel) ? value(QModbusDataUnit::HoldingRegisters, PulseOffWidthBase + channel) : 0;
}

quint16 E1212Simulator::value(QModbusDataUnit::RegisterType table, int address) const
{
    quint16 result = 0;
    if (address < 0 || address > 0xFFFF || !m_server->data(table, quint16(address), &result))
        return 0;
    return result;
}

bool E1212Simulator::setValue(QModbusDataUnit::RegisterType table, int address, quint16 value)
{
    return address >= 0 && address <= 0xFFFF && m_server->setData(table, quint16(address), value);
}

void E1212Simulator::setResponseDelay(int ms)
{
    m_proxy->setResponseDelay(qMax(0, ms));
}

void E1212Simulator::setSilent(bool silent)
{
    m_proxy->setSilent(silent);
}

void E1212Simulator::setDuplicateAnswers(bool on)
{
    m_proxy->setDuplicateAnswers(on);
}

void E1212Simulator::setGarbageAnswers(bool on)
{
    m_proxy->setGarbageAnswers(on);
}

void E1212Simulator::setMaxConnections(int max)
{
    m_proxy->setMaxConnections(qMax(0, max));
}

int E1212Simulator::refusedConnectionCount() const
{
    return m_proxy->refusedConnectionCount();
}

void E1212Simulator::setException(QModbusDataUnit::RegisterType table, int address,
                                  QModbusPdu::ExceptionCode code)
{
    m_server->setException(table, address, code);
}

void E1212Simulator::clearExceptions()
{
    m_server->clearExceptions();
}

int E1212Simulator::connectionCount() const
{
    return m_proxy->connectionCount();
}

void E1212Simulator::dropConnections()
{
    m_proxy->dropConnections();
}

int E1212Simulator::requestCount() const
{
    return m_server->requestCount();
}

// Called for client writes and for setData() alike.
void E1212Simulator::onDataWritten(QModbusDataUnit::RegisterType table, int address, int size)
{
    for (int a = address; a < address + size; ++a) {
        if (table == QModbusDataUnit::DiscreteInputs && validChannel(a)) {
            emit inputChanged(a, input(a));
        } else if (table == QModbusDataUnit::Coils && validChannel(a)) {
            const bool on = output(a);
            if (on != m_lastOutputs.at(a)) {
                m_lastOutputs[a] = on;
                emit outputChanged(a, on);
            }
        } else if (table == QModbusDataUnit::Coils && validChannel(a - PulseStatusBase)) {
            const int channel = a - PulseStatusBase;
            const bool on = pulseStatus(channel);
            const bool running = m_pulseTimers.at(channel)->isActive();
            if (on && !running)
                startPulse(channel);
            else if (!on && running)
                stopPulse(channel);
            emit pulseStatusChanged(channel, on);
        }
    }
}

void E1212Simulator::startPulse(int channel)
{
    setOutput(channel, true);
    m_pulseTimers[channel]->start(qMax<int>(1, pulseOnWidth(channel)));
}

void E1212Simulator::stopPulse(int channel)
{
    m_pulseTimers[channel]->stop();
    setOutput(channel, false);
}

void E1212Simulator::pulsePhase(int channel)
{
    const bool on = !output(channel);
    setOutput(channel, on);
    m_pulseTimers[channel]->start(qMax<int>(1, on ? pulseOnWidth(channel) : pulseOffWidth(channel)));
}
