#!/usr/bin/python3
"""Reference for the biquad tests: cookbook coefficients worked out here, then
scipy.signal.lfilter. usage: biquad_reference.py SIGNAL(float32) CASES OUT(float64)
where CASES holds one filter a line: KIND FS F0 Q GAINDB (KIND as the node kinds)."""
import math
import sys

import numpy as np
from scipy.signal import lfilter


def cookbook(kind, fs, f0, q, gain_db):
    w0 = 2.0 * math.pi * f0 / fs
    c, s = math.cos(w0), math.sin(w0)
    alpha = s / (2.0 * q)
    a = 10.0 ** (gain_db / 40.0)
    r = 2.0 * math.sqrt(a) * alpha
    if kind == 1:  # low-pass
        b, den = [(1 - c) / 2, 1 - c, (1 - c) / 2], [1 + alpha, -2 * c, 1 - alpha]
    elif kind == 2:  # high-pass
        b, den = [(1 + c) / 2, -(1 + c), (1 + c) / 2], [1 + alpha, -2 * c, 1 - alpha]
    elif kind == 3:  # band-pass, 0 dB peak
        b, den = [alpha, 0.0, -alpha], [1 + alpha, -2 * c, 1 - alpha]
    elif kind == 4:  # notch
        b, den = [1.0, -2 * c, 1.0], [1 + alpha, -2 * c, 1 - alpha]
    elif kind == 10:  # low shelf
        b = [a * ((a + 1) - (a - 1) * c + r), 2 * a * ((a - 1) - (a + 1) * c), a * ((a + 1) - (a - 1) * c - r)]
        den = [(a + 1) + (a - 1) * c + r, -2 * ((a - 1) + (a + 1) * c), (a + 1) + (a - 1) * c - r]
    elif kind == 11:  # high shelf
        b = [a * ((a + 1) + (a - 1) * c + r), -2 * a * ((a - 1) + (a + 1) * c), a * ((a + 1) + (a - 1) * c - r)]
        den = [(a + 1) - (a - 1) * c + r, 2 * ((a - 1) - (a + 1) * c), (a + 1) - (a - 1) * c - r]
    elif kind == 12:  # peaking
        b, den = [1 + alpha * a, -2 * c, 1 - alpha * a], [1 + alpha / a, -2 * c, 1 - alpha / a]
    else:
        raise ValueError(f"unknown kind {kind}")
    return np.array(b), np.array(den)


def main():
    signal = np.fromfile(sys.argv[1], dtype="<f4").astype(np.float64)
    outputs = []
    with open(sys.argv[2]) as cases:
        for line in cases:
            if not line.strip():
                continue
            kind, fs, f0, q, gain = line.split()
            b, a = cookbook(int(kind), float(fs), float(f0), float(q), float(gain))
            outputs.append(lfilter(b, a, signal))
    np.concatenate(outputs).astype("<f8").tofile(sys.argv[3])


if __name__ == "__main__":
    main()
