#include "context/AX.h"

#include <QTextBoundaryFinder>

#include <algorithm>
#include <cmath>

namespace tk {

namespace {

QString decimal(double v) {
    if (std::isfinite(v) && v == std::floor(v) && std::abs(v) < 1e15)
        return QString::number(qint64(v));
    QString s = QString::number(v, 'f', 6);
    while (s.endsWith(QLatin1Char('0')))
        s.chop(1);
    if (s.endsWith(QLatin1Char('.')))
        s.chop(1);
    return s;
}

QString firstCharacters(const QString& s, int n) {
    // Characters as a reader counts them: an emoji or an accented letter is one.
    QTextBoundaryFinder f(QTextBoundaryFinder::Grapheme, s);
    int count = 0;
    while (count < n && f.toNextBoundary() != -1)
        ++count;
    return count < n ? s : s.left(f.position());
}

bool agree(const AxElement& a, const AxElement& b) {
    // Left edge, top edge and width; the height is left out on purpose.
    return std::abs(a.x - b.x) < 2 && std::abs(a.y - b.y) < 2 && std::abs(a.w - b.w) < 2;
}

} // namespace

AxElement AX::describe(const AxRaw& raw) {
    AxElement e;
    e.role = raw.role ? *raw.role : QStringLiteral("?");
    if (raw.name && !raw.name->isEmpty())
        e.title = *raw.name;
    else if (raw.description)
        e.title = *raw.description;
    if (raw.text)
        e.value = firstCharacters(*raw.text, kValueLength);
    else if (raw.value)
        e.value = firstCharacters(decimal(*raw.value), kValueLength);
    if (raw.extents) {
        e.x = raw.extents->x();
        e.y = raw.extents->y();
        e.w = raw.extents->width();
        e.h = raw.extents->height();
    }
    return e;
}

std::vector<AxElement> AX::chain(platform::Accessibility& ax, QPointF point, int depth) {
    if (depth <= 0 || !ax.trusted())
        return {};
    auto out = ax.chain(point, depth);
    if (int(out.size()) > depth)
        out.resize(size_t(depth));
    return out;
}

std::optional<AxElement> AX::lassoAncestor(platform::Accessibility& ax,
                                           const std::vector<PointerSample>& path) {
    if (!ax.trusted() || path.size() < 5)
        return std::nullopt;
    double minX = path[0][0], maxX = minX, minY = path[0][1], maxY = minY;
    for (const auto& p : path) {
        minX = std::min(minX, p[0]);
        maxX = std::max(maxX, p[0]);
        minY = std::min(minY, p[1]);
        maxY = std::max(maxY, p[1]);
    }
    // A fixed inset: on a box under 10 points wide the corners cross the centre.
    const QPointF samples[] = {{(minX + maxX) * 0.5, (minY + maxY) * 0.5},
                               {minX + 5, minY + 5},
                               {maxX - 5, minY + 5},
                               {minX + 5, maxY - 5},
                               {maxX - 5, maxY - 5}};
    std::vector<std::vector<AxElement>> chains;
    for (QPointF s : samples)
        if (auto c = chain(ax, s, 10); !c.empty())
            chains.push_back(std::move(c));
    if (chains.empty())
        return std::nullopt;
    if (chains.size() == 1)
        return chains.front().front();
    // Aligned at the outer end of each capped chain, not at the tree's root.
    size_t m = chains.front().size();
    for (auto& c : chains) {
        std::reverse(c.begin(), c.end());
        m = std::min(m, c.size());
    }
    std::optional<AxElement> answer;
    for (size_t level = 0; level < m; ++level) {
        const AxElement& first = chains.front()[level];
        for (const auto& c : chains)
            if (!agree(c[level], first))
                return answer;
        answer = first;
    }
    return answer;
}

} // namespace tk
