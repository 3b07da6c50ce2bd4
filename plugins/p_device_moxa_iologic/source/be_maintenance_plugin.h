// SPDX-License-Identifier: MIT
// Back-end of the maintenance panel: device identity, connection state and live channels.
#pragma once

#include "dabstractpluginbackend.h"
#include "olm_d_moxa_channel.h"

#include <QHash>
#include <QSet>
#include <QStringList>
#include <QVector>

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
// The back-end owns no timer: every value comes from the plug-in's own commands, run and
// scheduled by the host. "listenEvents" on each channel keeps it live (an output shows its
// output coil, the state on the wire); "getValues" on the pulse status and on-width records,
// which the host runs every pollIntervalMs, tells which outputs blink and doubles as the
// heartbeat: its failures mark the values stale, its answers restart what an outage ended.
// "getInfo" fills the header; "setValue" toggles an output. The listen reports also make each
// channel's timeline: its changes over the last historySeconds, at most historyLength of them.
class BeMaintenanceDeviceMoxaIoLogic : public DAbstractPluginBackend
{
    Q_OBJECT
    Q_PROPERTY(QObject *device READ device WRITE setDevice NOTIFY pluginChanged)
    Q_PROPERTY(QString connectionPath READ connectionPath WRITE setConnectionPath NOTIFY connectionPathChanged)
    Q_PROPERTY(QString reference READ reference NOTIFY pluginChanged)
    Q_PROPERTY(QString version READ version NOTIFY versionChanged)
    Q_PROPERTY(QString serialNumber READ serialNumber NOTIFY serialNumberChanged)
    Q_PROPERTY(QString modelName READ modelName NOTIFY modelNameChanged)
    Q_PROPERTY(QString macAddress READ macAddress NOTIFY macAddressChanged)
    Q_PROPERTY(OLM_DMoxaChannel *channelsModel READ channelsModel NOTIFY channelsModelChanged)
    Q_PROPERTY(EnConnectionState connectionState READ connectionState NOTIFY connectionStateChanged)
    Q_PROPERTY(QString errorText READ errorText NOTIFY errorTextChanged)
    Q_PROPERTY(QString errorDetails READ errorDetails NOTIFY errorTextChanged)
    Q_PROPERTY(bool stale READ stale NOTIFY staleChanged)
    Q_PROPERTY(int staleSeconds READ staleSeconds NOTIFY staleChanged)
    Q_PROPERTY(QStringList pendingChannels READ pendingChannels NOTIFY pendingChannelsChanged)
    Q_PROPERTY(QStringList blinkingChannels READ blinkingChannels NOTIFY blinkingChannelsChanged)
    Q_PROPERTY(int pollIntervalMs READ pollIntervalMs WRITE setPollIntervalMs NOTIFY pollIntervalMsChanged)
    Q_PROPERTY(int historySeconds READ historySeconds CONSTANT)
    Q_PROPERTY(int historyLength READ historyLength CONSTANT)
public:
    enum EnConnectionState {
        CeCsIdle,         // not started: no device, or initBackend() not called yet
        CeCsConnecting,   // started, no answer yet
        CeCsConnected,    // the device answered the latest request
        CeCsNotAnswering, // time-out or no connection; the next scheduled read tries again
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
    // The plug-in's "reference" (which module of the configuration this is).
    QString reference() const;
    // Empty until getInfo has answered.
    QString version() const { return m_version; }
    QString serialNumber() const { return m_serialNumber; }
    QString modelName() const { return m_modelName; }
    QString macAddress() const { return m_macAddress; }
    // Never null; filled by initBackend().
    OLM_DMoxaChannel *channelsModel() const { return m_channels; }
    EnConnectionState connectionState() const { return m_state; }
    // What went wrong last, in plain words chosen from the error code; empty while connected.
    QString errorText() const { return m_errorText; }
    // The same failure as the host reported it (command, instruction, driver text).
    QString errorDetails() const { return m_errorDetails; }
    // True while the device does not answer and values are shown: they are as old as
    // staleSeconds, the time since the device last answered, as of the latest failure.
    bool stale() const { return m_stale; }
    int staleSeconds() const { return m_staleSeconds; }
    // Ids of the outputs clicked whose new state has not been seen yet.
    QStringList pendingChannels() const { return m_pending; }
    // Ids of the outputs whose pulse generator runs with a finite on-width.
    QStringList blinkingChannels() const { return m_blinking; }
    // Time between two scheduled reads of the pulse registers (default 500 ms; below 10 refused).
    int pollIntervalMs() const { return m_pollIntervalMs; }
    void setPollIntervalMs(int ms);
    // How far back a channel's timeline goes, and how many changes it keeps at most.
    static int historySeconds() { return 60; }
    static int historyLength() { return 512; }

    // A channel's changes as the listen reports showed them, oldest first: {"time": ms since
    // the epoch when the report came, "value": 0 or 1}. The first entry is the value the window
    // starts with and may be older than the window; the others are within it. Empty for a
    // channel never reported.
    Q_INVOKABLE QVariantList history(const QString &channelId) const;
    // Drops the changes that left the window ending at `nowMs` (ms since the epoch), all but
    // the last of them, which is the value the window starts with. The panel's time axis calls
    // it as it moves; the back-end keeps no clock of its own.
    Q_INVOKABLE void trimHistory(qint64 nowMs);

    // Fills the channel model from the plug-in's "channels" table (once), reads the device
    // information and starts listening and the scheduled reads. False, with errorText set,
    // when there is no plug-in or no channel table.
    Q_INVOKABLE bool initBackend();
    // Runs "getInfo" unless one runs; the header properties change when it answers.
    Q_INVOKABLE void getDeviceInfo();
    // Starts what is missing: a "listenEvents" per channel and the scheduled pulse reads.
    Q_INVOKABLE void updateChannelsValue();
    // Toggles a digital output from its displayed value with "setValue"; the displayed
    // value changes only when the device reports it. False (nothing sent) for an unknown
    // channel, an input, an output whose value is not known yet or one already pending.
    Q_INVOKABLE bool clickedOnChannel(const QString &channelId);

    // Applies one result of a run to the screen (header, channel value, pulse state).
    void applyTreatmentReply(unsigned long long runId, const QString &command, const QString &name,
                             const QVariant &value);
    // A run (or one scheduled run) ended: a success counts as an answer, a failure is shown.
    void treatmentReleased(unsigned long long runId, const QString &command, const DError &error);

    void commandResultChanged(unsigned long long runId, const QString &command, const QString &name,
                              const QVariant &value) override;
    void commandFinished(unsigned long long runId, const QString &command,
                         const QMap<QString, QVariant> &results) override;
    void commandFailed(unsigned long long runId, const QString &command, const DError &error) override;

    // The failure in a technician's words: `device` is the address, `silentMs` how long the
    // device has not answered, `where` the register or channel concerned ("coil 16").
    static QString plainError(const DError &error, const QString &device, qint64 silentMs, const QString &where);

signals:
    void connectionPathChanged();
    void versionChanged();
    void serialNumberChanged();
    void modelNameChanged();
    void macAddressChanged();
    void channelsModelChanged();
    void connectionStateChanged();
    void errorTextChanged();
    void staleChanged();
    void pendingChannelsChanged();
    void blinkingChannelsChanged();
    void pollIntervalMsChanged();
    // history(channelId) changed.
    void historyChanged(const QString &channelId);

private:
    enum EnRunKind { CeRkInfo, CeRkListen, CeRkWrite, CeRkPulseStatus, CeRkPulseOnWidth };
    struct Run
    {
        EnRunKind kind = CeRkInfo;
        QString channel; // the channel listened to or written, the record read
        bool wanted = false; // a write: the value asked for
        int readsSinceEnd = -1; // a write: scheduled reads that ended since it did (-1 running)
    };

    struct Change
    {
        qint64 ms;
        bool value;
    };

    DMoxaChannel *channel(const QString &id) const;
    // Appends a change of `channelId` seen at `ms` unless it shows the value already recorded.
    void recordChange(const QString &channelId, bool value, qint64 ms);
    // Keeps at most historyLength() changes, and of those before `nowMs` - historySeconds()
    // only the last; true when something was dropped.
    static bool trim(QVector<Change> &changes, qint64 nowMs);
    bool fillChannels(QString *error);
    void applyDeviceInformation(const QVariantMap &info);
    void applyPulseRead(EnRunKind kind, const QVariant &values);
    void confirmWrites(const QString &channelId, bool value, bool scheduledRead);
    // The device answered a run of `kind`.
    void answered(EnRunKind kind);
    QString where(const Run &run) const;
    void setPending(const QString &channelId, bool pending);
    void setStale(bool stale, int seconds);
    void setState(EnConnectionState state, const QString &errorText = QString(), const QString &details = QString());
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
    QString m_errorDetails;
    bool m_stale = false;
    int m_staleSeconds = 0;
    QStringList m_pending;
    QStringList m_blinking;
    int m_pollIntervalMs = 500;
    bool m_started = false;
    bool m_infoKnown = false;
    EnRunKind m_errorKind = CeRkInfo; // the run that failed with the error shown
    // When the device last answered (or the back-end started), ms since the epoch.
    qint64 m_lastAnswerMs = 0;
    // Outputs by pulse-register offset, and the latest pulse status and on-width read.
    QStringList m_outputsByOffset;
    QVector<uint> m_pulseStatus;
    QVector<uint> m_pulseOnWidth;
    // Every record of the channel table by id, with its fields.
    QHash<QString, QVariantMap> m_records;
    QHash<unsigned long long, Run> m_runs;
    // Writes that ended while their output is still pending, by output.
    QHash<QString, Run> m_writes;
    // Each channel's timeline, by channel id.
    QHash<QString, QVector<Change>> m_history;
};
