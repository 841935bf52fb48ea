#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "search/KaAnisotropy.h"

// Model identifiers of a variogram component.
enum KaVarioModel : uint32_t {
    kKaVarioNugget = 0,
    kKaVarioExponential = 1,
    kKaVarioGaussian = 2,
    kKaVarioQuadratic = 3,
    kKaVarioRationalQuadratic = 4,
    kKaVarioPower = 5,
    kKaVarioLinear = 6,
    kKaVarioWave = 7,
    kKaVarioSpherical = 8,
    kKaVarioLogarithmic = 9,
    kKaVarioPentaspherical = 10,
    kKaVarioCubic = 11,
};

inline constexpr uint32_t kKaVarioModelCount = 12;

// One elementary variogram model with its own sill, range, power and anisotropy.
class KaVario {
public:
    KaVario() = default;
    KaVario(const KaVario& other) { *this = other; }
    virtual ~KaVario() = default;

    // Copies model type, sill, range, power and the anisotropy parameters.
    KaVario& operator=(const KaVario& other);

    // Exact comparison in the order sill, range, power, model type, anisotropy.
    // Power takes part whatever the model.
    virtual bool IsEqual(const KaVario& other) const;

    // Stores model, sill and range and hands the five anisotropy parameters on;
    // the power is left as it is.
    void Set(uint32_t model, double sill, double range, double angle1, double angle2, double angle3,
             double ratio1, double ratio2);

    // Display name of a model identifier; "unknow" outside 0..11.
    static std::string ModelName(uint32_t model);

    // Semivariance at the separation (dx, dy, dz).
    double Evaluate(double dx, double dy, double dz) const;

    uint32_t modelType = kKaVarioSpherical;
    double sill = 1.0;
    double range = 1.0;
    double power = 3.0;  // read by the Power model only
    KaAnisotropy anisotropy;
};

// The whole variogram: the sum of its components, times scale. Owns the components.
class KaVarioVector {
public:
    KaVarioVector() = default;
    KaVarioVector(const KaVarioVector&) = delete;
    KaVarioVector& operator=(const KaVarioVector&) = delete;
    virtual ~KaVarioVector() = default;

    // A deep copy: every component by copy assignment, and the scale.
    std::unique_ptr<KaVarioVector> Clone() const;

    // Deletes the components from the front and resets scale to 1.0.
    void Clear();
    bool IsValid() const { return !items_.empty(); }
    void Add(std::unique_ptr<KaVario> component) { items_.push_back(std::move(component)); }
    void Add(KaVario* component) { items_.emplace_back(component); }

    std::size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    // Checked: std::out_of_range("invalid vector<T> subscript") outside the array.
    KaVario& operator[](std::size_t i);
    const KaVario& operator[](std::size_t i) const;

    // Components and scale equal, in order.
    bool IsEqual(const KaVarioVector& other) const;

    // Sum of the components' values in order from 0.0, times scale; 0.0 when empty.
    double Evaluate(double dx, double dy, double dz) const;

    double scale = 1.0;

private:
    std::vector<std::unique_ptr<KaVario>> items_;
};
