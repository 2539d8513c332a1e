#pragma once

#include "writer/Context.h"

#include <QString>
#include <QStringList>

#include <optional>

namespace tk::service {

// What the words say the capture is about. Empty when nothing was said.
struct Classification {
    QString type;     // "bug", "ux", "improvement", "praise", "question"
    QString severity; // "critical", "high", "medium", "low"
};
Classification classify(const QString& transcript);

// The element the lasso most likely meant, with the alternatives.
struct ElementGuess {
    QString path;
    double confidence = 0;
    QStringList candidates; // best first; the guess itself leads
};
std::optional<ElementGuess> guessElement(const CaptureContext& c);

// "frame[Editor]/panel/push button[Save]": outermost first.
QString elementPath(const std::vector<AxElement>& outermostFirst);

} // namespace tk::service
