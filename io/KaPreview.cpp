#include "io/KaPreview.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "io/KaColourMap.h"
#include "io/KaIoError.h"
#include "io/KaIoSupport.h"
#include "io/KaRasterIo.h"

namespace {

// 5x7 bitmap font for ' ' to '~': five columns per glyph, bit 0 the top row,
// bit 7 the descender row below the baseline.
constexpr uint8_t kFont[95][5] = {
    {0x00, 0x00, 0x00, 0x00, 0x00}, {0x00, 0x00, 0x5F, 0x00, 0x00}, {0x00, 0x07, 0x00, 0x07, 0x00},
    {0x14, 0x7F, 0x14, 0x7F, 0x14}, {0x24, 0x2A, 0x7F, 0x2A, 0x12}, {0x23, 0x13, 0x08, 0x64, 0x62},
    {0x36, 0x49, 0x55, 0x22, 0x50}, {0x00, 0x05, 0x03, 0x00, 0x00}, {0x00, 0x1C, 0x22, 0x41, 0x00},
    {0x00, 0x41, 0x22, 0x1C, 0x00}, {0x14, 0x08, 0x3E, 0x08, 0x14}, {0x08, 0x08, 0x3E, 0x08, 0x08},
    {0x00, 0x50, 0x30, 0x00, 0x00}, {0x08, 0x08, 0x08, 0x08, 0x08}, {0x00, 0x60, 0x60, 0x00, 0x00},
    {0x20, 0x10, 0x08, 0x04, 0x02}, {0x3E, 0x51, 0x49, 0x45, 0x3E}, {0x00, 0x42, 0x7F, 0x40, 0x00},
    {0x42, 0x61, 0x51, 0x49, 0x46}, {0x21, 0x41, 0x45, 0x4B, 0x31}, {0x18, 0x14, 0x12, 0x7F, 0x10},
    {0x27, 0x45, 0x45, 0x45, 0x39}, {0x3C, 0x4A, 0x49, 0x49, 0x30}, {0x01, 0x71, 0x09, 0x05, 0x03},
    {0x36, 0x49, 0x49, 0x49, 0x36}, {0x06, 0x49, 0x49, 0x29, 0x1E}, {0x00, 0x36, 0x36, 0x00, 0x00},
    {0x00, 0x56, 0x36, 0x00, 0x00}, {0x08, 0x14, 0x22, 0x41, 0x00}, {0x14, 0x14, 0x14, 0x14, 0x14},
    {0x00, 0x41, 0x22, 0x14, 0x08}, {0x02, 0x01, 0x51, 0x09, 0x06}, {0x32, 0x49, 0x79, 0x41, 0x3E},
    {0x7E, 0x11, 0x11, 0x11, 0x7E}, {0x7F, 0x49, 0x49, 0x49, 0x36}, {0x3E, 0x41, 0x41, 0x41, 0x22},
    {0x7F, 0x41, 0x41, 0x22, 0x1C}, {0x7F, 0x49, 0x49, 0x49, 0x41}, {0x7F, 0x09, 0x09, 0x09, 0x01},
    {0x3E, 0x41, 0x49, 0x49, 0x7A}, {0x7F, 0x08, 0x08, 0x08, 0x7F}, {0x00, 0x41, 0x7F, 0x41, 0x00},
    {0x20, 0x40, 0x41, 0x3F, 0x01}, {0x7F, 0x08, 0x14, 0x22, 0x41}, {0x7F, 0x40, 0x40, 0x40, 0x40},
    {0x7F, 0x02, 0x0C, 0x02, 0x7F}, {0x7F, 0x04, 0x08, 0x10, 0x7F}, {0x3E, 0x41, 0x41, 0x41, 0x3E},
    {0x7F, 0x09, 0x09, 0x09, 0x06}, {0x3E, 0x41, 0x51, 0x21, 0x5E}, {0x7F, 0x09, 0x19, 0x29, 0x46},
    {0x46, 0x49, 0x49, 0x49, 0x31}, {0x01, 0x01, 0x7F, 0x01, 0x01}, {0x3F, 0x40, 0x40, 0x40, 0x3F},
    {0x1F, 0x20, 0x40, 0x20, 0x1F}, {0x3F, 0x40, 0x38, 0x40, 0x3F}, {0x63, 0x14, 0x08, 0x14, 0x63},
    {0x07, 0x08, 0x70, 0x08, 0x07}, {0x61, 0x51, 0x49, 0x45, 0x43}, {0x00, 0x7F, 0x41, 0x41, 0x00},
    {0x02, 0x04, 0x08, 0x10, 0x20}, {0x00, 0x41, 0x41, 0x7F, 0x00}, {0x04, 0x02, 0x01, 0x02, 0x04},
    {0x40, 0x40, 0x40, 0x40, 0x40}, {0x00, 0x01, 0x02, 0x04, 0x00}, {0x20, 0x54, 0x54, 0x54, 0x78},
    {0x7F, 0x48, 0x44, 0x44, 0x38}, {0x38, 0x44, 0x44, 0x44, 0x20}, {0x38, 0x44, 0x44, 0x48, 0x7F},
    {0x38, 0x54, 0x54, 0x54, 0x18}, {0x08, 0x7E, 0x09, 0x01, 0x02}, {0x18, 0xA4, 0xA4, 0xA4, 0x7C},
    {0x7F, 0x08, 0x04, 0x04, 0x78}, {0x00, 0x44, 0x7D, 0x40, 0x00}, {0x40, 0x80, 0x84, 0x7D, 0x00},
    {0x7F, 0x10, 0x28, 0x44, 0x00}, {0x00, 0x41, 0x7F, 0x40, 0x00}, {0x7C, 0x04, 0x18, 0x04, 0x78},
    {0x7C, 0x08, 0x04, 0x04, 0x78}, {0x38, 0x44, 0x44, 0x44, 0x38}, {0xFC, 0x24, 0x24, 0x24, 0x18},
    {0x18, 0x24, 0x24, 0x18, 0xFC}, {0x7C, 0x08, 0x04, 0x04, 0x08}, {0x48, 0x54, 0x54, 0x54, 0x20},
    {0x04, 0x3F, 0x44, 0x40, 0x20}, {0x3C, 0x40, 0x40, 0x20, 0x7C}, {0x1C, 0x20, 0x40, 0x20, 0x1C},
    {0x3C, 0x40, 0x30, 0x40, 0x3C}, {0x44, 0x28, 0x10, 0x28, 0x44}, {0x1C, 0xA0, 0xA0, 0xA0, 0x7C},
    {0x44, 0x64, 0x54, 0x4C, 0x44}, {0x00, 0x08, 0x36, 0x41, 0x00}, {0x00, 0x00, 0x7F, 0x00, 0x00},
    {0x00, 0x41, 0x36, 0x08, 0x00}, {0x08, 0x04, 0x08, 0x10, 0x08},
};

using Rgb = KaRgb;

constexpr Rgb kBackground{255, 255, 255};
constexpr Rgb kBlank = kKaBlankColour;
constexpr Rgb kInk{40, 40, 40};
constexpr Rgb kFrame{90, 90, 90};
constexpr int kTextScale = 2;
constexpr int kGlyphW = 6 * kTextScale;   // five columns and a gap
constexpr int kGlyphH = 8 * kTextScale;

class Canvas {
public:
    Canvas(int w, int h) : w_(w), h_(h), px_(static_cast<std::size_t>(w) * h, kBackground) {}
    int Width() const { return w_; }
    int Height() const { return h_; }

    void Set(int x, int y, Rgb c)
    {
        if (x >= 0 && y >= 0 && x < w_ && y < h_) px_[static_cast<std::size_t>(y) * w_ + x] = c;
    }
    void Fill(int x, int y, int w, int h, Rgb c)
    {
        for (int j = y; j < y + h; ++j)
            for (int i = x; i < x + w; ++i) Set(i, j, c);
    }
    // A one-pixel frame just outside the rectangle.
    void Frame(int x, int y, int w, int h, Rgb c)
    {
        Fill(x - 1, y - 1, w + 2, 1, c);
        Fill(x - 1, y + h, w + 2, 1, c);
        Fill(x - 1, y, 1, h, c);
        Fill(x + w, y, 1, h, c);
    }
    void Text(int x, int y, const std::string& s, Rgb c)
    {
        for (unsigned char ch : s) {
            if (ch >= 0x80 && ch < 0xC0) continue;  // UTF-8 continuation: one '?' per character
            const uint8_t* glyph = kFont[(ch >= 32 && ch < 127 ? ch : '?') - 32];
            for (int col = 0; col < 5; ++col)
                for (int row = 0; row < 8; ++row)
                    if (glyph[col] >> row & 1)
                        Fill(x + col * kTextScale, y + row * kTextScale, kTextScale, kTextScale, c);
            x += kGlyphW;
        }
    }
    std::vector<uint8_t> Channel(int k) const
    {
        std::vector<uint8_t> out(px_.size());
        for (std::size_t i = 0; i < px_.size(); ++i)
            out[i] = k == 0 ? px_[i].r : k == 1 ? px_[i].g : px_[i].b;
        return out;
    }

private:
    int w_, h_;
    std::vector<Rgb> px_;
};

int TextWidth(const std::string& s)
{
    int n = 0;
    for (unsigned char ch : s) n += !(ch >= 0x80 && ch < 0xC0);
    return n * kGlyphW;
}

void SaveCanvas(const Canvas& canvas, const std::string& path)
{
    GDALDriver* png = GetGDALDriverManager()->GetDriverByName("PNG");
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    if (!png || !mem) throw KaIoError(path, "PNG output is not available");
    kaio::WriteThroughTemp(png, path, [&](const std::string& temp) -> kaio::GdalDatasetPtr {
        kaio::GdalDatasetPtr ds(mem->Create("", canvas.Width(), canvas.Height(), 3, GDT_Byte, nullptr));
        if (!ds) return nullptr;
        for (int k = 0; k < 3; ++k) {
            std::vector<uint8_t> band = canvas.Channel(k);
            if (ds->GetRasterBand(k + 1)->RasterIO(GF_Write, 0, 0, canvas.Width(), canvas.Height(),
                                                   band.data(), canvas.Width(), canvas.Height(),
                                                   GDT_Byte, 0, 0, nullptr) != CE_None)
                return nullptr;
        }
        return kaio::GdalDatasetPtr(png->CreateCopy(temp.c_str(), ds.get(), TRUE, nullptr, nullptr, nullptr));
    });
}

}  // namespace

void WritePreviewPng(const KaSurface& surface, const std::string& path, KaRamp ramp)
{
    KaIoInit();
    const KaSurfaceObjInfo& info = surface.GetSurfaceObjInfo();
    const KaTDataMatrix2D<double>& m = surface.GridData();
    if (m.IsEmpty() || m.columnCount == 0 || m.rowCount == 0)
        throw KaIoError(path, "the surface holds no grid to draw");
    const int cols = static_cast<int>(std::min<uint32_t>(m.columnCount, 1u << 30));
    const int rows = static_cast<int>(std::min<uint32_t>(m.rowCount, 1u << 30));
    const double blank = surface.GetInvalidValue();
    const KaZRange range = KaSurfaceZRange(surface);
    const double zMin = range.zMin, zMax = range.zMax;
    const bool anyValue = range.anyValue, anyBlank = range.anyBlank;

    // Map size: the long side blown up by a whole factor to at least 400
    // pixels, or sub-sampled to 1000; the short side after the physical aspect.
    double dx = info.GetDx(), dy = info.GetDy();
    if (!(dx > 0) && !(dy > 0)) dx = dy = 1.0;
    else if (!(dx > 0)) dx = dy;
    else if (!(dy > 0)) dy = dx;
    const int nodesLong = std::max(cols, rows);
    const int longSide = nodesLong >= 400 ? std::min(nodesLong, 1000)
                                          : nodesLong * static_cast<int>(std::ceil(400.0 / nodesLong));
    const double ex = cols * dx, ey = rows * dy;
    int mapW = longSide, mapH = longSide;
    if (ex >= ey) mapH = std::clamp(static_cast<int>(std::lround(longSide * ey / ex)), 1, longSide);
    else mapW = std::clamp(static_cast<int>(std::lround(longSide * ex / ey)), 1, longSide);

    const std::string title = surface.GetName().empty() ? kaio::FileStem(path) : surface.GetName();
    const std::string caption = std::to_string(m.columnCount) + " x " + std::to_string(m.rowCount) + " nodes";
    const std::vector<std::string> labels = KaLegendLabels(range);
    int labelW = TextWidth("blank");
    for (const std::string& s : labels) labelW = std::max(labelW, TextWidth(s));

    const int margin = 16, barW = 22, gap = 28;
    const int mapX = margin, mapY = margin + kGlyphH + 14;
    const int barH = std::clamp(mapH, 160, 420);
    const int barX = mapX + mapW + gap, barY = mapY;
    const int legendBottom = barY + barH + (anyBlank ? 16 + kGlyphH : 0);
    const int width = std::max({barX + barW + 10 + labelW + margin, mapX + TextWidth(title) + margin,
                                mapX + TextWidth(caption) + margin});
    const int height = std::max(mapY + mapH + 12 + kGlyphH, legendBottom) + margin;
    Canvas canvas(width, height);

    canvas.Text(mapX, margin, title, kInk);
    for (int j = 0; j < mapH; ++j) {
        const int r = rows - 1 - std::min(rows - 1, static_cast<int>((j + 0.5) * rows / mapH));  // north up
        for (int i = 0; i < mapW; ++i) {
            const int c = std::min(cols - 1, static_cast<int>((i + 0.5) * cols / mapW));
            const double v = m.At(r, c);
            Rgb colour = kBlank;
            if (!KaIsBlankNode(v, blank)) colour = KaRampColour(ramp, range.Position(v));
            canvas.Set(mapX + i, mapY + j, colour);
        }
    }
    canvas.Frame(mapX, mapY, mapW, mapH, kFrame);
    canvas.Text(mapX, mapY + mapH + 12, caption, kInk);

    const int labelX = barX + barW + 10;
    if (anyValue) {
        for (int j = 0; j < barH; ++j) {
            const double t = zMax > zMin ? 1.0 - (j + 0.5) / barH : 0.5;
            canvas.Fill(barX, barY + j, barW, 1, KaRampColour(ramp, t));
        }
        canvas.Frame(barX, barY, barW, barH, kFrame);
        for (std::size_t k = 0; k < labels.size(); ++k) {
            const int y = labels.size() == 1 ? barY + barH / 2
                                             : barY + static_cast<int>(k * (barH - 1) / (labels.size() - 1));
            canvas.Fill(barX + barW, y, 5, 1, kFrame);
            canvas.Text(labelX, std::clamp(y - kGlyphH / 2, barY - 4, barY + barH + 4 - kGlyphH), labels[k], kInk);
        }
    } else {
        canvas.Text(barX, barY, labels.front(), kInk);
    }
    if (anyBlank) {
        const int y = anyValue ? barY + barH + 16 : barY + kGlyphH + 16;
        canvas.Fill(barX, y, barW, kGlyphH, kBlank);
        canvas.Frame(barX, y, barW, kGlyphH, kFrame);
        canvas.Text(labelX, y, "blank", kInk);
    }

    SaveCanvas(canvas, path);
}

void WritePlotPng(const std::string& path, const KaPlot& plot)
{
    KaIoInit();
    double x1 = 0, y1 = 0;
    for (const auto& [x, y] : plot.points) x1 = std::max(x1, x), y1 = std::max(y1, y);
    for (const auto& [x, y] : plot.curve) x1 = std::max(x1, x), y1 = std::max(y1, y);
    if (!(x1 > 0)) x1 = 1;
    if (!(y1 > 0)) y1 = 1;
    x1 *= 1.05, y1 *= 1.1;

    const int margin = 16, plotW = 560, plotH = 360;
    const int tickW = TextWidth("0.000000");
    const int plotX = margin + kGlyphH + 10 + tickW + 8, plotY = margin + kGlyphH + 14;
    const int width = plotX + plotW + margin + TextWidth("0.000000") / 2;
    const int height = plotY + plotH + 8 + kGlyphH + 10 + kGlyphH + margin;
    Canvas canvas(width, height);
    canvas.Text(plotX, margin, plot.title, kInk);
    auto px = [&](double x) { return plotX + static_cast<int>(std::lround(x / x1 * (plotW - 1))); };
    auto py = [&](double y) { return plotY + plotH - 1 - static_cast<int>(std::lround(y / y1 * (plotH - 1))); };
    // Ticks at round steps (1, 2 or 5 times a power of ten), about four per axis.
    auto step = [](double top) {
        const double raw = top / 4, p = std::pow(10.0, std::floor(std::log10(raw)));
        return raw / p < 1.5 ? p : raw / p < 3.5 ? 2 * p : raw / p < 7.5 ? 5 * p : 10 * p;
    };
    auto tick = [](double v) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%.6g", v);
        return std::string(buf);
    };
    const double sx = step(x1), sy = step(y1);
    for (int k = 0; k * sx <= x1; ++k) {
        const std::string l = tick(k * sx);
        canvas.Fill(px(k * sx), plotY + plotH, 1, 5, kFrame);
        canvas.Text(px(k * sx) - TextWidth(l) / 2, plotY + plotH + 8, l, kInk);
    }
    for (int k = 0; k * sy <= y1; ++k) {
        const std::string l = tick(k * sy);
        canvas.Fill(plotX - 5, py(k * sy), 5, 1, kFrame);
        canvas.Text(plotX - 8 - TextWidth(l), py(k * sy) - kGlyphH / 2, l, kInk);
    }
    canvas.Frame(plotX, plotY, plotW, plotH, kFrame);
    canvas.Text(plotX + (plotW - TextWidth(plot.xLabel)) / 2, plotY + plotH + 10 + kGlyphH, plot.xLabel, kInk);
    // The y label runs upwards along the left edge, one glyph per line.
    for (std::size_t i = 0; i < plot.yLabel.size(); ++i) {
        const int y = plotY + plotH / 2 - static_cast<int>(plot.yLabel.size()) * kGlyphH / 2 + static_cast<int>(i) * kGlyphH;
        canvas.Text(margin, y, std::string(1, plot.yLabel[i]), kInk);
    }
    const Rgb curve = KaRampColour(0.35);
    constexpr Rgb dots{200, 60, 40};
    for (std::size_t i = 1; i < plot.curve.size(); ++i) {
        const auto [xa, ya] = plot.curve[i - 1];
        const auto [xb, yb] = plot.curve[i];
        const int steps = std::max({std::abs(px(xb) - px(xa)), std::abs(py(yb) - py(ya)), 1});
        for (int k = 0; k <= steps; ++k) {
            const double t = static_cast<double>(k) / steps;
            const double x = xa + (xb - xa) * t, y = std::min(ya + (yb - ya) * t, y1);
            canvas.Fill(px(x) - 1, py(y) - 1, 2, 2, curve);
        }
    }
    for (const auto& [x, y] : plot.points) canvas.Fill(px(x) - 3, py(y) - 3, 7, 7, dots);
    SaveCanvas(canvas, path);
}
