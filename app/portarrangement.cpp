#include "app/portarrangement.h"

#include <QtMath>

#include <algorithm>

namespace PortArrangement {

QList<int> rowSizes(Layout layout, int count, int perRow)
{
    if (count <= 0)
        return {};
    int k = 1;
    switch (layout) {
    case Layout::Horizontal:
        k = count;
        break;
    case Layout::Vertical:
        k = 1;
        break;
    case Layout::Grid:
        // As square as it gets, wider rather than taller.
        k = int(std::ceil(std::sqrt(double(count))));
        break;
    case Layout::Custom:
        k = std::max(1, perRow);
        break;
    }
    QList<int> rows;
    const int rowCount = (count + k - 1) / k;
    for (int r = 0; r < rowCount; ++r)
        rows.append(std::min(k, count - r * k));
    return rows;
}

} // namespace PortArrangement
