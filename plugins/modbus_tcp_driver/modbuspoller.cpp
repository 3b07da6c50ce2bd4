// SPDX-License-Identifier: MIT
// The "listen" instructions of one device, polled together.
#include "modbuspoller.h"

#include "modbusconnection.h"
#include "modbusinstruction.h"

#include <QTimerEvent>

#include <algorithm>

namespace {
// Every poll goes under this tag, so takeAll() can withdraw them at once.
constexpr quint64 c_pollTag = ~quint64(0);

int end(const QModbusDataUnit &unit)
{
    return unit.startAddress() + int(unit.valueCount());
}
} // namespace

ModbusPoller::ModbusPoller(ModbusConnection *connection, int intervalMs, QObject *parent)
    : QObject(parent)
    , m_connection(connection)
    , m_intervalMs(intervalMs)
{
}

void ModbusPoller::add(quint64 id, const QModbusDataUnit &unit, int timeoutMs)
{
    Listener listener;
    listener.unit = unit;
    listener.timeoutMs = timeoutMs;
    m_listeners.insert(id, listener);
    m_planned = false;
    if (m_outstanding > 0)
        m_again = true;
    else
        m_timer.start(0, this); // listeners added in one go share the first round
}

void ModbusPoller::remove(quint64 id)
{
    if (!m_listeners.remove(id))
        return;
    m_planned = false;
    if (m_listeners.isEmpty())
        takeAll();
}

QList<quint64> ModbusPoller::takeAll()
{
    const QList<quint64> ids = m_listeners.keys();
    m_listeners.clear();
    m_planned = false;
    m_connection->cancel(c_pollTag);
    ++m_round;
    m_outstanding = 0;
    m_again = false;
    m_timer.stop();
    return ids;
}

void ModbusPoller::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != m_timer.timerId()) {
        QObject::timerEvent(event);
        return;
    }
    m_timer.stop();
    if (m_listeners.isEmpty())
        return;
    if (!m_planned)
        plan();
    m_roundClock.start();
    m_outstanding = m_plan.size();
    for (const Span &span : qAsConst(m_plan))
        poll(span);
}

// Sorts the listeners by table and address and merges neighbours into shared reads.
void ModbusPoller::plan()
{
    QVector<quint64> ids = m_listeners.keys().toVector();
    std::sort(ids.begin(), ids.end(), [this](quint64 a, quint64 b) {
        const QModbusDataUnit &ua = m_listeners.find(a)->unit;
        const QModbusDataUnit &ub = m_listeners.find(b)->unit;
        return std::make_pair(ua.registerType(), ua.startAddress()) < std::make_pair(ub.registerType(), ub.startAddress());
    });
    m_plan.clear();
    bool lastAlone = false;
    for (quint64 id : qAsConst(ids)) {
        const Listener &listener = *m_listeners.find(id);
        const QModbusDataUnit &unit = listener.unit;
        if (!m_plan.isEmpty() && !lastAlone && !listener.alone) {
            Span &span = m_plan.last();
            const int start = span.unit.startAddress();
            const int newEnd = qMax(end(span.unit), end(unit));
            if (span.unit.registerType() == unit.registerType() && unit.startAddress() - end(span.unit) <= NearGap
                && newEnd - start <= DChannelTable::maxReadCount(ModbusInstruction::spaceOf(unit.registerType()))) {
                span.unit.setValueCount(uint(newEnd - start));
                span.timeoutMs = qMin(span.timeoutMs, listener.timeoutMs);
                span.members.append(id);
                continue;
            }
        }
        m_plan.append(Span{QModbusDataUnit(unit.registerType(), unit.startAddress(), unit.valueCount()),
                           listener.timeoutMs, {id}});
        lastAlone = listener.alone;
    }
    m_planned = true;
}

void ModbusPoller::poll(const Span &span)
{
    const int round = m_round;
    m_connection->submit(c_pollTag, span.unit, false, span.timeoutMs, ModbusConnection::Poll,
                         [this, span, round](const DError &error, const QVector<quint16> &values) {
                             onPolled(span, round, error, values);
                         });
}

void ModbusPoller::onPolled(const Span &span, int round, const DError &error, const QVector<quint16> &values)
{
    if (error.code == IMessenger::CeModbusException && span.members.size() > 1) {
        // One listener's bad address must not silence its neighbours: from now on each of
        // them is read on its own, starting with this round.
        m_planned = false;
        for (quint64 id : span.members) {
            const auto it = m_listeners.find(id);
            if (it == m_listeners.end())
                continue;
            it->alone = true;
            ++m_outstanding;
            poll(Span{it->unit, it->timeoutMs, {id}});
        }
    } else {
        // A report may stop listeners (or all of them): look each one up as it comes.
        for (quint64 id : span.members) {
            if (round != m_round)
                return;
            deliver(id, span, error, values);
        }
    }
    if (round == m_round && --m_outstanding == 0) {
        m_timer.start(m_again ? 0 : int(qMax<qint64>(0, m_intervalMs - m_roundClock.elapsed())), this);
        m_again = false;
    }
}

void ModbusPoller::deliver(quint64 id, const Span &span, const DError &error, const QVector<quint16> &values)
{
    const auto it = m_listeners.find(id);
    if (it == m_listeners.end())
        return;
    Listener &listener = *it;
    if (error.isError()) {
        listener.reported = false;
        if (listener.failing)
            return;
        listener.failing = true;
        emit errorReported(id, DError{error.code, error.exceptionCode,
                                      m_connection->errorText(listener.unit, error.text)});
        return;
    }
    listener.failing = false;
    const int count = int(listener.unit.valueCount());
    const quint16 *slice = values.constData() + (listener.unit.startAddress() - span.unit.startAddress());
    if (listener.reported && std::equal(slice, slice + count, listener.last.constBegin(), listener.last.constEnd()))
        return;
    listener.last = QVector<quint16>(slice, slice + count);
    listener.reported = true;
    emit valuesReported(id, ModbusInstruction::replyValues(slice, count));
}
