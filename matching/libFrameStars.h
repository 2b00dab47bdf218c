// The stars by which a match is judged: those of the image, those of the catalog in the frame,
// which pairs are possible, and how dense the image stars are.
#pragma once

#include <cstddef>
#include <vector>

namespace vestrel {

/// A catalog star where the plate puts it.
struct PredictedStar {
    double X = 0;  ///< pixels
    double Y = 0;
    double Magnitude = 0;
    double Error = 0;  ///< of the catalog position, per axis, pixels (1 σ); 0 when unknown
};

/// A star of the image.
struct ObservedStar {
    double X = 0;  ///< pixels
    double Y = 0;
    double Flux = 0;
    double Error = 0;  ///< of the centroid, per axis, pixels (1 σ); 0 when unknown
};

/// A pair of stars, as indices into a list of catalog stars and a list of image stars.
struct StarPlaces {
    std::size_t Catalog = 0;
    std::size_t Image = 0;
};

/// The stars of an image, brightest first, and how dense they are: what is the same for all plates.
class ObservedField {
 public:
    /// @param width, height of the image, pixels
    ObservedField(const std::vector<ObservedStar>& image, int width, int height);

    const std::vector<ObservedStar>& Stars() const { return stars_; }  ///< the brightest 400

    /// The place in `Stars` of a star of the given list; the number of stars when it is not kept.
    std::size_t PlaceOf(std::size_t given) const;

    /// The density of the stars around a place, as a probability per square pixel, from the
    /// distance of the sixth nearest star; at least the density of evenly spread stars.
    /// @param except index into `Stars` of a star that is left out
    double DensityAt(double x, double y, std::size_t except) const;

    /// log of the density of the other stars around a star.
    double LogDensityAround(std::size_t place) const;

    /// Measures the density around every star, which pays when many plates are judged.
    void KeepDensities();

 private:
    double MeasureLogDensity(std::size_t place) const;
    double UsedArea(int width, int height) const;

    std::vector<std::size_t> order_;  ///< indices into the given list
    std::vector<ObservedStar> stars_;
    std::vector<double> logDensities_;  ///< of all stars, or empty
    double evenDensity_ = 0;
};

/// The stars of both lists, brightest first, with the possible pairs.
class FrameStars {
 public:
    /// A catalog star near an image star.
    struct Candidate {
        std::size_t Catalog = 0;
        double Weight = 0;  ///< probability that the image star is this one of all in the frame
    };
    struct Observed {
        ObservedStar Star;
        std::vector<Candidate> Near;  ///< rising
        double LogDensity = 0;        ///< log of the density of image stars here; set when `Near`
                                      ///< is not empty
    };

    /// @param field must outlive this
    /// @param reach how far from its predicted place a catalog star may be, pixels
    FrameStars(const std::vector<PredictedStar>& catalog, const ObservedField& field, double reach);

    std::vector<PredictedStar> Catalog;  ///< the brightest 1000
    std::vector<Observed> Image;         ///< all of the field
    double Reach = 0;

    /// Converts indices into the given lists to indices into `Catalog` and `Image`; false when a
    /// star is not among those kept.
    bool Find(const StarPlaces& given, StarPlaces& found) const;

    double Distance(const StarPlaces& pair) const;

 private:
    void FindNear();
    void Weigh(Observed& star, std::size_t place);

    const ObservedField& field_;
    std::vector<std::size_t> catalogOrder_;  ///< indices into the given list
    std::vector<double> logRanks_;
};

}  // namespace vestrel
