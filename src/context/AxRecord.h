#pragma once

#include "platform/Platform.h"

#include <QJsonObject>

#include <optional>

namespace tk {

using AxElement = platform::AxElement;

// The element record: exactly seven keys, all required when read back.
QJsonObject toJson(const AxElement& e);
std::optional<AxElement> axElementFromJson(const QJsonObject& o);

} // namespace tk
