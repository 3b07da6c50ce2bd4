// SPDX-License-Identifier: MIT
// The channel list the maintenance panel shows.
#pragma once

#include "d_moxa_channel.h"
#include "qobject_list_model_base.h"

class OLM_DMoxaChannel : public __qobjectsqmllist::QObjectListModelBase<DMoxaChannel>
{
    Q_OBJECT
    Q_PROPERTY(int length READ length NOTIFY changed)
    Q_PROPERTY(int isEmpty READ isEmpty NOTIFY changed)
public:
    explicit OLM_DMoxaChannel(QObject *parent = nullptr);
    ~OLM_DMoxaChannel() override;

    Q_INVOKABLE QVariant header(int section) { return QObjectListModelBase::header(section); }

signals:
    void changed() override;

protected:
    Q_INVOKABLE QVariant item(int i) { return QObjectListModelBase::item(i); }
};
