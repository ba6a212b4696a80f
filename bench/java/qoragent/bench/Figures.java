package qoragent.bench;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/** Figures of one run, by name; a name's figures come one a turn. */
final class Figures {
    private final Map<String, List<Double>> rows = new LinkedHashMap<>();

    void add(String name, double value) { rows.computeIfAbsent(name, n -> new ArrayList<>()).add(value); }

    double median(String name) {
        return median(rows.get(name).stream().mapToDouble(Double::doubleValue).toArray());
    }

    /** The median of the ratios of each turn, so that what slows a whole turn cancels out. */
    double ratio(String over, String under) {
        double[] ratios = new double[rows.get(over).size()];
        for (int i = 0; i < ratios.length; i++)
            ratios[i] = rows.get(over).get(i) / rows.get(under).get(i);
        return median(ratios);
    }

    static double median(double[] values) {
        double[] sorted = values.clone();
        Arrays.sort(sorted);
        int middle = sorted.length / 2;
        return sorted.length % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
    }
}
