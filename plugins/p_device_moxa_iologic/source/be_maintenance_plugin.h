// SPDX-License-Identifier: MIT
// Back-end of the maintenance panel: device identity, connection state and live channels.
#pragma once

#include "dabstractpluginbackend.h"
#include "olm_d_moxa_channel.h"

#include <QHash>
#include <QStringList>
#include <QTimer>

// How the panel gets its back-end: maintenance_panel.qml creates one itself
// (`import PlgLibDeviceMoxaIoLogic 1.0`, registered by every PDeviceMoxaIoLogic
// construction) and binds, from context properties the host app sets:
//   `device`          <- "maintenanceDevice", the configured plug-in instance (a
//                        PDeviceMoxaIoLogic attached to a host), required;
//   `connectionPath`  <- "maintenanceConnectionPath", optional (else the plug-in's
//                        "connectionPath" property, else its "reference");
//   `pollIntervalMs`  <- "maintenancePollIntervalMs", optional.
// It then calls initBackend().
//
// Every value shown comes from the plug-in's own commands, run through the host
// (runCommand): "getInfo" for the header; "getValues" from the first channel of each
// register block, once per poll interval (two reads for the sixteen channels); "setValue"
// to toggle an output. Not "listenEvents": the host runs its executions one at a time on the
// declared command, and a listening one never ends, so it could watch one channel only.
// An output shows its output coil, the state on the wire. A poll that
// fails shows the error; the next poll retries, so the screen recovers by itself.
class BeMaintenanceDeviceMoxaIoLogic : public DAbstractPluginBackend
{
    Q_OBJECT
    Q_PROPERTY(QObject *device READ device WRITE setDevice NOTIFY pluginChanged)
    Q_PROPERTY(QString connectionPath READ connectionPath WRITE setConnectionPath NOTIFY connectionPathChanged)
    Q_PROPERTY(QString version READ version NOTIFY versionChanged)
    Q_PROPERTY(QString serialNumber READ serialNumber NOTIFY serialNumberChanged)
    Q_PROPERTY(QString modelName READ modelName NOTIFY modelNameChanged)
    Q_PROPERTY(QString macAddress READ macAddress NOTIFY macAddressChanged)
    Q_PROPERTY(OLM_DMoxaChannel *channelsModel READ channelsModel NOTIFY channelsModelChanged)
    Q_PROPERTY(EnConnectionState connectionState READ connectionState NOTIFY connectionStateChanged)
    Q_PROPERTY(QString errorText READ errorText NOTIFY errorTextChanged)
    Q_PROPERTY(QStringList pendingChannels READ pendingChannels NOTIFY pendingChannelsChanged)
    Q_PROPERTY(int pollIntervalMs READ pollIntervalMs WRITE setPollIntervalMs NOTIFY pollIntervalMsChanged)
public:
    enum EnConnectionState {
        CeCsIdle,         // not started: no device, or initBackend() not called yet
        CeCsConnecting,   // started, no answer yet
        CeCsConnected,    // the device answered the latest request
        CeCsNotAnswering, // time-out or no connection; the next poll tries again
        CeCsError,        // the device or the host refused a request: see errorText
        _CeCsNbr
    };
    Q_ENUM(EnConnectionState)

    explicit BeMaintenanceDeviceMoxaIoLogic(QObject *parent = nullptr);
    ~BeMaintenanceDeviceMoxaIoLogic() override;

    // The plug-in instance as a QObject, for QML; a non-plug-in object clears it.
    QObject *device() const;
    void setDevice(QObject *device);

    QString connectionPath() const { return m_connectionPath; }
    void setConnectionPath(const QString &path);
    // Empty until getInfo has answered.
    QString version() const { return m_version; }
    QString serialNumber() const { return m_serialNumber; }
    QString modelName() const { return m_modelName; }
    QString macAddress() const { return m_macAddress; }
    // Never null; filled by initBackend().
    OLM_DMoxaChannel *channelsModel() const { return m_channels; }
    EnConnectionState connectionState() const { return m_state; }
    // What went wrong last, naming the command and channel; empty while connected.
    QString errorText() const { return m_errorText; }
    // Ids of the outputs clicked whose read-back has not arrived yet.
    QStringList pendingChannels() const { return m_pending; }
    // Time between two reads of the channels (default 500 ms; values below 10 are refused).
    int pollIntervalMs() const { return m_pollTimer.interval(); }
    void setPollIntervalMs(int ms);

    // Fills the channel model from the plug-in's "channels" table (once), reads the device
    // information and starts polling the channels. False, with errorText set, when there
    // is no plug-in or no channel table.
    Q_INVOKABLE bool initBackend();
    // Runs "getInfo"; the header properties change when it answers.
    Q_INVOKABLE void getDeviceInfo();
    // Reads every channel now: one "getValues" per register block whose previous read has
    // ended. Called at each poll.
    Q_INVOKABLE void updateChannelsValue();
    // Toggles a digital output from its displayed value with "setValue"; the displayed
    // value changes only when the device reports it. False (nothing sent) for an unknown
    // channel, an input, an output whose value is not known yet or one already pending.
    Q_INVOKABLE bool clickedOnChannel(const QString &channelId);

    // Applies one result of a run to the screen (header, channel value, state).
    void applyTreatmentReply(unsigned long long runId, const QString &command, const QString &name,
                             const QVariant &value);
    // A run ended: forgets it and, for a failure, shows the error.
    void treatmentReleased(unsigned long long runId, const QString &command,
                           IMessenger::EnErrorCode code, const QString &error);

    void commandResultChanged(unsigned long long runId, const QString &command, const QString &name,
                              const QVariant &value) override;
    void commandFinished(unsigned long long runId, const QString &command,
                         const QMap<QString, QVariant> &results) override;
    void commandFailed(unsigned long long runId, const QString &command, const DError &error) override;

signals:
    void connectionPathChanged();
    void versionChanged();
    void serialNumberChanged();
    void modelNameChanged();
    void macAddressChanged();
    void channelsModelChanged();
    void connectionStateChanged();
    void errorTextChanged();
    void pendingChannelsChanged();
    void pollIntervalMsChanged();

private:
    struct Run
    {
        QString command;
        QString channel;     // getValues: first channel of the block; setValue: the output
        QStringList block;   // getValues: channel ids by offset from the first register
        quint64 serial = 0;  // getValues: order in which the reads started
    };

    DMoxaChannel *channel(const QString &id) const;
    bool fillChannels(QString *error);
    void applyDeviceInformation(const QVariantMap &info);
    // False (nothing applied) when the values are not a list.
    bool applyBlockValues(const Run &run, const QVariant &values);
    void pollTick();
    void setPending(const QString &channelId, bool pending);
    void setState(EnConnectionState state, const QString &errorText = QString());
    void stopAll();
    template<typename T>
    void setField(T &field, const T &value, void (BeMaintenanceDeviceMoxaIoLogic::*changed)());

    OLM_DMoxaChannel *m_channels = nullptr;
    QString m_connectionPath;
    QString m_version;
    QString m_serialNumber;
    QString m_modelName;
    QString m_macAddress;
    EnConnectionState m_state = CeCsIdle;
    QString m_errorText;
    QStringList m_pending;
    // Pending output -> serial of the first read that started after its write ended
    // (0 while the write runs): that read is the device's read-back.
    QHash<QString, quint64> m_readBackFrom;
    bool m_started = false;
    bool m_infoKnown = false;
    quint64 m_lastSerial = 0;
    QHash<unsigned long long, Run> m_runs;
    QTimer m_pollTimer;
};
