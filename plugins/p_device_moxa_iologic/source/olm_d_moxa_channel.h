// SPDX-License-Identifier: MIT
// The channel list the maintenance panel shows.
#pragma once

#include "d_moxa_channel.h"
#include "qobject_list_model_base.h"

class OLM_DMoxaChannel : public __qobjectsqmllist::QObjectListModelBase<DMoxaChannel>
{
    Q_OBJECT
public:
    explicit OLM_DMoxaChannel(QObject *parent = nullptr);
    ~OLM_DMoxaChannel() override;
};
