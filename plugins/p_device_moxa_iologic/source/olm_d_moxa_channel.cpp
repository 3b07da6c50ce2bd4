// SPDX-License-Identifier: MIT
#include "olm_d_moxa_channel.h"

OLM_DMoxaChannel::OLM_DMoxaChannel(QObject *parent)
    : QObjectListModelBase<DMoxaChannel>(parent)
{}

OLM_DMoxaChannel::~OLM_DMoxaChannel() = default;
