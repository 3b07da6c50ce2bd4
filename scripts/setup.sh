#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs every Debian package the project needs to build, test and run.
# Safe to run again: only what is missing gets installed.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  qtbase5-dev qtbase5-dev-tools qtdeclarative5-dev qtdeclarative5-dev-tools
  libqt5serialbus5-dev libqt5serialbus5-plugins libqt5serialbus5-bin
  qttools5-dev-tools
  qml-module-qtquick2 qml-module-qtquick-window2 qml-module-qtquick-layouts
  qml-module-qtquick-controls2 qml-module-qtquick-templates2 qml-module-qttest
  qml-module-qtqml-models2
  qt5-qmltooling-plugins
  libmodbus-dev
  mbpoll python3 python3-pymodbus python3-serial python3-serial-asyncio time
  xvfb xauth
  libreadline-dev
  mosquitto mosquitto-clients libmosquitto-dev openssl
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ "${#missing[@]}" -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
