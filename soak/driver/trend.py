"""Whether a figure grows with time."""

import statistics

LEAST_SAMPLES = 8


def slope(points):
    """The median slope of all pairs of (time, value). A few outliers do not move it."""
    slopes = [(later[1] - earlier[1]) / (later[0] - earlier[0])
              for place, earlier in enumerate(points) for later in points[place + 1:]
              if later[0] > earlier[0]]
    return statistics.median(slopes) if slopes else 0.0


def thinned(points, most=400):
    """Every n-th point: more points would make too many pairs."""
    step = -(-len(points) // most)
    return points[::step] if step > 1 else points


def growth(points, warm_up):
    """How much the value grows during the second half of the points after the warm-up, and the length
    of that half in seconds. None if there are too few points."""
    if not points:
        return None
    begin = points[0][0] + warm_up
    points = [point for point in points if point[0] >= begin]
    half = thinned(points[len(points) // 2:])
    if len(half) < LEAST_SAMPLES:
        return None
    length = half[-1][0] - half[0][0]
    return slope(half) * length, length


class Limit:
    """How much a figure may grow during the second half of a series: a number, or a share of the
    figure's level if that is larger."""

    def __init__(self, name, unit, number, share=0.0):
        self.name = name
        self.unit = unit
        self.number = number
        self.share = share

    def verdict(self, name, points, found):
        """What is wrong with the growth that was found in the points, or None."""
        level = statistics.median(value for _, value in points)
        allowed = max(self.number, self.share * level)
        if found[0] <= allowed:
            return None
        return ("%s grows: by %.1f %s in %.0f s, at a level of %.1f; %.1f are allowed"
                % (name, found[0], self.unit, found[1], level, allowed))
