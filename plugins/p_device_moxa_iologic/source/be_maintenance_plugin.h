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
// construction) and binds `device` to the context property "maintenanceDevice", the
// configured plug-in instance (a PDeviceMoxaIoLogic attached to a host), and
// `connectionPath` to the context property "maintenanceConnectionPath" when the host app
// sets one. It then calls initBackend().
//
// Every value shown comes from the plug-in's own commands, run through the host
// (runCommand): "getInfo" for the header; one "listenEvents" per channel, so the driver
// reports each channel at its poll interval; "setValue" to toggle an output. A failed or
// ended listening is started again, after the retry delay while the device does not answer.
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
    Q_PROPERTY(int retryDelayMs READ retryDelayMs WRITE setRetryDelayMs NOTIFY retryDelayMsChanged)
public:
    enum EnConnectionState {
        CeCsIdle,         // not started: no device, or initBackend() not called yet
        CeCsConnecting,   // started, no answer yet
        CeCsConnected,    // the device answered the latest request
        CeCsNotAnswering, // time-out or no connection; retried by itself
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
    // Wait before asking a device that did not answer again (default 1000 ms).
    int retryDelayMs() const { return m_retryTimer.interval(); }
    void setRetryDelayMs(int ms);

    // Fills the channel model from the plug-in's "channels" table (once), then reads the
    // device information and starts listening to every channel. False, with errorText
    // set, when there is no plug-in or no channel table.
    Q_INVOKABLE bool initBackend();
    // Runs "getInfo"; the header properties change when it answers.
    Q_INVOKABLE void getDeviceInfo();
    // Starts a "listenEvents" for every channel not listened to yet.
    Q_INVOKABLE void updateChannelsValue();
    // Toggles a digital output from its displayed value with "setValue"; the displayed
    // value changes only when the device reports it. False (nothing sent) for an unknown
    // channel, an input, an output whose value is not known yet or one already pending.
    Q_INVOKABLE bool clickedOnChannel(const QString &channelId);

    // Applies one result of a run to the screen (header, channel value, state).
    void applyTreatmentReply(unsigned long long runId, const QString &command, const QString &name,
                             const QVariant &value);
    // A run ended: forgets it and, for a failure, shows the error and plans a retry.
    void treatmentReleased(unsigned long long runId, const QString &command,
                           IMessenger::EnErrorCode code, const QString &error);

    void commandResultChanged(unsigned long long runId, const QString &command, const QString &name,
                              const QVariant &value) override;
    void commandFinished(unsigned long long runId, const QString &command,
                         const QMap<QString, QVariant> &results) override;
    void commandFailed(unsigned long long runId, const QString &command, IMessenger::EnErrorCode code,
                       const QString &error) override;

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
    void retryDelayMsChanged();

private:
    struct Run
    {
        QString command;
        QString channel; // empty for getInfo
        QVariant target; // setValue: the value asked for
    };

    DMoxaChannel *channel(const QString &id) const;
    bool fillChannels(QString *error);
    void applyDeviceInformation(const QVariantMap &info);
    void applyChannelValue(const QString &channelId, const QVariant &reported);
    void setPending(const QString &channelId, bool pending);
    void setState(EnConnectionState state, const QString &errorText = QString());
    void retry();
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
    bool m_started = false;
    bool m_infoKnown = false;
    QHash<unsigned long long, Run> m_runs;
    QHash<QString, unsigned long long> m_listening; // channel id -> its listenEvents run
    QTimer m_retryTimer;
};
