// SPDX-License-Identifier: MIT
// Command "getInfo": reads the module's model name, firmware version and build, and MAC
// address, and returns them as one map.
#pragma once

#include "dabstractcommand.h"

class DCmdGetInfo : public DAbstractCommand
{
    Q_OBJECT
public:
    DCmdGetInfo(const QMap<QString, QVariant> &parameters, QObject *parent);
    explicit DCmdGetInfo(QObject *parent);

    // Sends the three reads of the identity registers. The result "deviceInformation" is
    // posted once all three replies are in, whatever their order.
    bool commandExecute() override;

    bool rplModelName(unsigned long long instructionId, const QMap<QString, QVariant> &reply);
    bool rplFirmwareInfo(unsigned long long instructionId, const QMap<QString, QVariant> &reply);
    bool rplMacAddress(unsigned long long instructionId, const QMap<QString, QVariant> &reply);

private:
    // The reply's words, or false after logging why the reply of `handler` is refused
    // (no "values", not a list, fewer than `minimumWords` words).
    bool replyWords(const char *handler, const QMap<QString, QVariant> &reply, int minimumWords, QList<quint16> *words) const;
    void readRegisters(int address, int words, ReplyCallback callback);
    // True while a reply is missing; otherwise what posting the result returned.
    bool complete();

    QString m_modelName;
    QString m_firmwareVersion;
    QString m_firmwareBuild;
    QString m_macAddress;
    bool m_modelNameReceived = false;
    bool m_firmwareReceived = false;
    bool m_macAddressReceived = false;
};
