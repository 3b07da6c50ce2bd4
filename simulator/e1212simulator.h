// SPDX-License-Identifier: MIT
// A simulated ioLogik E1212 answering Modbus TCP, with fault controls for tests.
#pragma once

#include "simulatorrequest.h"

#include <QByteArray>
#include <QHostAddress>
#include <QModbusDataUnit>
#include <QModbusPdu>
#include <QObject>
#include <QVector>

class QTimer;
class SimulatorFaultProxy;
class SimulatorModbusServer;

// Register map (the one the module's channel table uses):
//   discrete inputs   0-7      DI0-DI7
//   coils             0-7      DO0-DO7 output values
//   coils             16-23    DO0-DO7 pulse status (1 = pulse generator running)
//   holding registers 256-263  DO0-DO7 pulse on-width in ms
//   holding registers 512-519  DO0-DO7 pulse off-width in ms
//   input registers   5000-5009  model name "E1212", two characters a word, high byte first, zero-padded
//   input registers   5024-5026  MAC address, three words, high byte first (default 00:90:E8:12:34:56)
//   input registers   5029-5032  firmware: bytes b0..b7 = version b0.b1.b2, b3 unused, build b4 b5 b6 b7
// Any other address of the four tables answers with exception 2 (illegal data address).
//
// Pulse generator: while an output's pulse status is 1 the output toggles, on for its
// on-width then off for its off-width (widths read at each phase, 0 counts as 1 ms);
// status 0 stops it and leaves the output off.
//
// Everything runs on the thread that owns the object; no call blocks.
class E1212Simulator : public QObject
{
    Q_OBJECT
public:
    enum State { Stopped, Running };
    Q_ENUM(State)

    static constexpr int ChannelCount = 8;
    static constexpr int PulseStatusBase = 0x0010;
    static constexpr int PulseOnWidthBase = 0x0100;
    static constexpr int PulseOffWidthBase = 0x0200;
    static constexpr int ModelNameAddress = 5000;
    static constexpr int ModelNameWords = 10;
    static constexpr int MacAddressAddress = 5024;
    static constexpr int FirmwareAddress = 5029;

    explicit E1212Simulator(QObject *parent = nullptr);
    ~E1212Simulator() override;

    // Listens on `address`:`port` (port 0 picks a free one). Loopback unless an address is
    // given. False, with *error and errorString() set, when the address cannot be bound.
    bool start(const QHostAddress &address = QHostAddress::LocalHost, quint16 port = 0,
               QString *error = nullptr);
    // Closes the listening socket and every connection; register values are kept, so a
    // start() on the same port afterwards looks like a restarted module.
    void stop();

    State state() const { return m_state; }
    QString errorString() const { return m_errorString; }
    QHostAddress address() const { return m_address; }
    // The port listened on; 0 when stopped.
    quint16 port() const;

    // Identity as a client decodes it.
    static QString modelName();
    static QString firmwareVersion();  // "V3.2.1 Build23041709"
    QString macAddress() const;        // "00:90:E8:12:34:56" unless set
    // Six bytes, first byte first; false (and nothing changed) for any other size.
    bool setMacAddress(const QByteArray &bytes);

    // I/O. Channels are 0-7; out-of-range channels read false and are ignored on write.
    bool input(int channel) const;
    void setInput(int channel, bool on);
    bool output(int channel) const;
    void setOutput(int channel, bool on);
    bool pulseStatus(int channel) const;
    // Starts (true) or stops the pulse generator of one output, as a client's write does.
    void setPulseStatus(int channel, bool on);
    quint16 pulseOnWidth(int channel) const;
    quint16 pulseOffWidth(int channel) const;

    // Raw access to any mapped address; value() gives 0 and setValue() false when unmapped.
    quint16 value(QModbusDataUnit::RegisterType table, int address) const;
    bool setValue(QModbusDataUnit::RegisterType table, int address, quint16 value);

    // Faults.
    // Holds every answer back for `ms` (0 = answer at once). Answers keep their order.
    void setResponseDelay(int ms);
    // While silent no answer leaves; held answers go out, in order, when silence ends.
    void setSilent(bool silent);
    // Sends every answer twice, as a faulty gateway does.
    void setDuplicateAnswers(bool on);
    // Replaces every answer by as many random bytes.
    void setGarbageAnswers(bool on);
    // With `max` clients connected (0 = no limit) a new one is accepted and closed at once,
    // as a module with all its connections taken does; counted by refusedConnectionCount().
    void setMaxConnections(int max);
    int refusedConnectionCount() const;
    // Requests touching `address` of `table` get the exception answer `code`.
    void setException(QModbusDataUnit::RegisterType table, int address, QModbusPdu::ExceptionCode code);
    void clearExceptions();
    int connectionCount() const;
    // Resets every client connection, as a module's restart does (it keeps listening).
    void dropConnections();
    // Requests received since start.
    int requestCount() const;

signals:
    void stateChanged(E1212Simulator::State state);
    void inputChanged(int channel, bool on);
    void outputChanged(int channel, bool on);
    void pulseStatusChanged(int channel, bool on);
    void connectionCountChanged(int count);
    // A client ("address:port") closed at once for the connection limit.
    void connectionRefused(const QString &client);
    // A request answered by the server, whatever the faults do with its answer afterwards.
    void requestServed(const SimulatorRequest &request);

private:
    void setState(State state);
    void onDataWritten(QModbusDataUnit::RegisterType table, int address, int size);
    void startPulse(int channel);
    void stopPulse(int channel);
    void pulsePhase(int channel);
    void writeBit(QModbusDataUnit::RegisterType table, int address, bool on);
    bool readBit(QModbusDataUnit::RegisterType table, int address) const;

    SimulatorModbusServer *m_server = nullptr;
    SimulatorFaultProxy *m_proxy = nullptr;
    QVector<QTimer *> m_pulseTimers;
    QVector<bool> m_lastOutputs;
    State m_state = Stopped;
    QString m_errorString;
    QHostAddress m_address;
};
