// SPDX-License-Identifier: MIT
#include "qobject_list_model_qml.h"

namespace __qobjectsqmllist {

QVariant QObjectListModelQml::header(int section)
{
    return headerData(section, Qt::Horizontal, Qt::DisplayRole);
}

void QObjectListModelQml::resetInternalData()
{
    emit changed();
}

} // namespace __qobjectsqmllist
