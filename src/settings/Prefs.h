#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

namespace tk {

// The per-user preferences, read at the moment of use. Safe from any thread:
// each call opens its own view of the one settings file.
class Prefs {
public:
    static constexpr const char* kHover = "tk.hover";
    static constexpr const char* kAutoExpand = "tk.autoexpand";
    static constexpr const char* kRedact = "tk.redact";
    static constexpr const char* kPendingIngest = "tk.pendingIngest";
    static constexpr const char* kRelaunchedForAX = "tk.relaunchedForAX";
    static constexpr const char* kLastCount = "tk.lastCount";
    static constexpr const char* kLastCrashScan = "tk.lastCrashScan";
    static constexpr const char* kStatusItemVisible = "tk.statusItemVisible";
    static constexpr const char* kStatusItemFrame = "tk.statusItemFrame";

    static bool hoverExpand() { return boolValue(kHover, true); }
    static bool autoExpand() { return boolValue(kAutoExpand, true); }
    static bool redact() { return boolValue(kRedact, false); }
    static bool relaunchedForAX() { return boolValue(kRelaunchedForAX, false); }
    static int lastCount();
    static double lastCrashScan();
    static QStringList pendingIngest();

    // A stored value counts as Boolean only when it is exactly true or false.
    static bool boolValue(const char* key, bool fallback);
    static void setBool(const char* key, bool value);
    static void setValue(const char* key, const QVariant& value);
    static void setPendingIngest(const QStringList& dirs);
    static QVariant raw(const char* key);

    // ~/.config/Tolmesk/Tolmesk.conf (XDG_CONFIG_HOME honoured).
    static QString filePath();
};

} // namespace tk
