// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/fft/Fft1d.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace kelvo::vision {
namespace {

constexpr int maxFactorCount = 13;
constexpr float twoPi = 6.28318530717959f;
constexpr float taur = -0.5f;                // cos(2 pi / 3)
constexpr float taui = 0.866025403784439f;   // sin(2 pi / 3)
constexpr float tr11 = 0.309016994374947f;   // cos(2 pi / 5)
constexpr float ti11 = 0.951056516295154f;   // sin(2 pi / 5)
constexpr float tr12 = -0.809016994374947f;  // cos(4 pi / 5)
constexpr float ti12 = 0.587785252292473f;   // sin(4 pi / 5)
constexpr float halfSqrt2 = 0.7071067811865475f;
constexpr float sqrt2 = 1.414213562373095f;

// The passes are written on column-major arrays with 1-based indices, the form in
// which the mixed-radix scheme is published; these views keep the index arithmetic
// out of the butterflies.
template <class T>
class Array3 {
public:
    Array3(T* data, int extent1, int extent2) : data_(data), extent1_(extent1), extent2_(extent2) {}
    T& operator()(int i, int j, int k) const {
        return data_[(i - 1) + extent1_ * ((j - 1) + extent2_ * (k - 1))];
    }

private:
    T* data_;
    int extent1_;
    int extent2_;
};

template <class T>
class Array2 {
public:
    Array2(T* data, int extent1) : data_(data), extent1_(extent1) {}
    T& operator()(int i, int j) const { return data_[(i - 1) + extent1_ * (j - 1)]; }

private:
    T* data_;
    int extent1_;
};

// n = factors[2] * ... * factors[nf + 1], trial divisors first from `preferred`, then
// 7, 9, 11, ...; a lone factor 2 is moved to the front.
void factorize(int n, int* factors, const int (&preferred)[4]) {
    if (n < 1) {
        throw std::invalid_argument("FFT length must be positive");
    }
    int count = 0;
    int remaining = n;
    int divisor = 0;
    for (int trial = 0; remaining != 1; ++trial) {
        divisor = trial < 4 ? preferred[trial] : divisor + 2;
        while (remaining % divisor == 0) {
            if (count == maxFactorCount) {
                throw std::invalid_argument("FFT length has too many factors");
            }
            factors[2 + count] = divisor;
            ++count;
            remaining /= divisor;
            if (divisor == 2 && count != 1) {
                std::rotate(factors + 2, factors + 1 + count, factors + 2 + count);
            }
        }
    }
    factors[0] = n;
    factors[1] = count;
}

// ---------------------------------------------------------------------------------------
// Real forward passes: cc(ido, l1, ip) -> ch(ido, ip, l1).

template <class T>
void radf2(int ido, int l1, const T* ccData, T* chData, const float* wa1) {
    const Array3<const T> cc(ccData, ido, l1);
    const Array3<T> ch(chData, ido, 2);
    for (int k = 1; k <= l1; ++k) {
        ch(1, 1, k) = cc(1, k, 1) + cc(1, k, 2);
        ch(ido, 2, k) = cc(1, k, 1) - cc(1, k, 2);
    }
    if (ido < 2) {
        return;
    }
    if (ido > 2) {
        for (int k = 1; k <= l1; ++k) {
            for (int i = 3; i <= ido; i += 2) {
                const int ic = ido + 2 - i;
                const T tr2 = wa1[i - 3] * cc(i - 1, k, 2) + wa1[i - 2] * cc(i, k, 2);
                const T ti2 = wa1[i - 3] * cc(i, k, 2) - wa1[i - 2] * cc(i - 1, k, 2);
                ch(i, 1, k) = cc(i, k, 1) + ti2;
                ch(ic, 2, k) = ti2 - cc(i, k, 1);
                ch(i - 1, 1, k) = cc(i - 1, k, 1) + tr2;
                ch(ic - 1, 2, k) = cc(i - 1, k, 1) - tr2;
            }
        }
        if (ido % 2 == 1) {
            return;
        }
    }
    for (int k = 1; k <= l1; ++k) {
        ch(1, 2, k) = -cc(ido, k, 2);
        ch(ido, 1, k) = cc(ido, k, 1);
    }
}

template <class T>
void radf3(int ido, int l1, const T* ccData, T* chData, const float* wa1, const float* wa2) {
    const Array3<const T> cc(ccData, ido, l1);
    const Array3<T> ch(chData, ido, 3);
    for (int k = 1; k <= l1; ++k) {
        const T cr2 = cc(1, k, 2) + cc(1, k, 3);
        ch(1, 1, k) = cc(1, k, 1) + cr2;
        ch(1, 3, k) = taui * (cc(1, k, 3) - cc(1, k, 2));
        ch(ido, 2, k) = cc(1, k, 1) + taur * cr2;
    }
    for (int k = 1; k <= l1; ++k) {
        for (int i = 3; i <= ido; i += 2) {
            const int ic = ido + 2 - i;
            const T dr2 = wa1[i - 3] * cc(i - 1, k, 2) + wa1[i - 2] * cc(i, k, 2);
            const T di2 = wa1[i - 3] * cc(i, k, 2) - wa1[i - 2] * cc(i - 1, k, 2);
            const T dr3 = wa2[i - 3] * cc(i - 1, k, 3) + wa2[i - 2] * cc(i, k, 3);
            const T di3 = wa2[i - 3] * cc(i, k, 3) - wa2[i - 2] * cc(i - 1, k, 3);
            const T cr2 = dr2 + dr3;
            const T ci2 = di2 + di3;
            ch(i - 1, 1, k) = cc(i - 1, k, 1) + cr2;
            ch(i, 1, k) = cc(i, k, 1) + ci2;
            const T tr2 = cc(i - 1, k, 1) + taur * cr2;
            const T ti2 = cc(i, k, 1) + taur * ci2;
            const T tr3 = taui * (di2 - di3);
            const T ti3 = taui * (dr3 - dr2);
            ch(i - 1, 3, k) = tr2 + tr3;
            ch(ic - 1, 2, k) = tr2 - tr3;
            ch(i, 3, k) = ti2 + ti3;
            ch(ic, 2, k) = ti3 - ti2;
        }
    }
}

template <class T>
void radf4(int ido, int l1, const T* ccData, T* chData, const float* wa1, const float* wa2,
           const float* wa3) {
    const Array3<const T> cc(ccData, ido, l1);
    const Array3<T> ch(chData, ido, 4);
    for (int k = 1; k <= l1; ++k) {
        const T tr1 = cc(1, k, 2) + cc(1, k, 4);
        const T tr2 = cc(1, k, 1) + cc(1, k, 3);
        ch(1, 1, k) = tr1 + tr2;
        ch(ido, 4, k) = tr2 - tr1;
        ch(ido, 2, k) = cc(1, k, 1) - cc(1, k, 3);
        ch(1, 3, k) = cc(1, k, 4) - cc(1, k, 2);
    }
    if (ido < 2) {
        return;
    }
    if (ido > 2) {
        for (int k = 1; k <= l1; ++k) {
            for (int i = 3; i <= ido; i += 2) {
                const int ic = ido + 2 - i;
                const T cr2 = wa1[i - 3] * cc(i - 1, k, 2) + wa1[i - 2] * cc(i, k, 2);
                const T ci2 = wa1[i - 3] * cc(i, k, 2) - wa1[i - 2] * cc(i - 1, k, 2);
                const T cr3 = wa2[i - 3] * cc(i - 1, k, 3) + wa2[i - 2] * cc(i, k, 3);
                const T ci3 = wa2[i - 3] * cc(i, k, 3) - wa2[i - 2] * cc(i - 1, k, 3);
                const T cr4 = wa3[i - 3] * cc(i - 1, k, 4) + wa3[i - 2] * cc(i, k, 4);
                const T ci4 = wa3[i - 3] * cc(i, k, 4) - wa3[i - 2] * cc(i - 1, k, 4);
                const T tr1 = cr2 + cr4;
                const T tr4 = cr4 - cr2;
                const T ti1 = ci2 + ci4;
                const T ti4 = ci2 - ci4;
                const T ti2 = cc(i, k, 1) + ci3;
                const T ti3 = cc(i, k, 1) - ci3;
                const T tr2 = cc(i - 1, k, 1) + cr3;
                const T tr3 = cc(i - 1, k, 1) - cr3;
                ch(i - 1, 1, k) = tr1 + tr2;
                ch(ic - 1, 4, k) = tr2 - tr1;
                ch(i, 1, k) = ti1 + ti2;
                ch(ic, 4, k) = ti1 - ti2;
                ch(i - 1, 3, k) = ti4 + tr3;
                ch(ic - 1, 2, k) = tr3 - ti4;
                ch(i, 3, k) = tr4 + ti3;
                ch(ic, 2, k) = tr4 - ti3;
            }
        }
        if (ido % 2 == 1) {
            return;
        }
    }
    for (int k = 1; k <= l1; ++k) {
        const T ti1 = -halfSqrt2 * (cc(ido, k, 2) + cc(ido, k, 4));
        const T tr1 = halfSqrt2 * (cc(ido, k, 2) - cc(ido, k, 4));
        ch(ido, 1, k) = tr1 + cc(ido, k, 1);
        ch(ido, 3, k) = cc(ido, k, 1) - tr1;
        ch(1, 2, k) = ti1 - cc(ido, k, 3);
        ch(1, 4, k) = ti1 + cc(ido, k, 3);
    }
}

template <class T>
void radf5(int ido, int l1, const T* ccData, T* chData, const float* wa1, const float* wa2,
           const float* wa3, const float* wa4) {
    const Array3<const T> cc(ccData, ido, l1);
    const Array3<T> ch(chData, ido, 5);
    for (int k = 1; k <= l1; ++k) {
        const T cr2 = cc(1, k, 5) + cc(1, k, 2);
        const T ci5 = cc(1, k, 5) - cc(1, k, 2);
        const T cr3 = cc(1, k, 4) + cc(1, k, 3);
        const T ci4 = cc(1, k, 4) - cc(1, k, 3);
        ch(1, 1, k) = cc(1, k, 1) + cr2 + cr3;
        ch(ido, 2, k) = cc(1, k, 1) + tr11 * cr2 + tr12 * cr3;
        ch(1, 3, k) = ti11 * ci5 + ti12 * ci4;
        ch(ido, 4, k) = cc(1, k, 1) + tr12 * cr2 + tr11 * cr3;
        ch(1, 5, k) = ti12 * ci5 - ti11 * ci4;
    }
    for (int k = 1; k <= l1; ++k) {
        for (int i = 3; i <= ido; i += 2) {
            const int ic = ido + 2 - i;
            const T dr2 = wa1[i - 3] * cc(i - 1, k, 2) + wa1[i - 2] * cc(i, k, 2);
            const T di2 = wa1[i - 3] * cc(i, k, 2) - wa1[i - 2] * cc(i - 1, k, 2);
            const T dr3 = wa2[i - 3] * cc(i - 1, k, 3) + wa2[i - 2] * cc(i, k, 3);
            const T di3 = wa2[i - 3] * cc(i, k, 3) - wa2[i - 2] * cc(i - 1, k, 3);
            const T dr4 = wa3[i - 3] * cc(i - 1, k, 4) + wa3[i - 2] * cc(i, k, 4);
            const T di4 = wa3[i - 3] * cc(i, k, 4) - wa3[i - 2] * cc(i - 1, k, 4);
            const T dr5 = wa4[i - 3] * cc(i - 1, k, 5) + wa4[i - 2] * cc(i, k, 5);
            const T di5 = wa4[i - 3] * cc(i, k, 5) - wa4[i - 2] * cc(i - 1, k, 5);
            const T cr2 = dr2 + dr5;
            const T ci5 = dr5 - dr2;
            const T cr5 = di2 - di5;
            const T ci2 = di2 + di5;
            const T cr3 = dr3 + dr4;
            const T ci4 = dr4 - dr3;
            const T cr4 = di3 - di4;
            const T ci3 = di3 + di4;
            ch(i - 1, 1, k) = cc(i - 1, k, 1) + cr2 + cr3;
            ch(i, 1, k) = cc(i, k, 1) + ci2 + ci3;
            const T tr2 = cc(i - 1, k, 1) + tr11 * cr2 + tr12 * cr3;
            const T ti2 = cc(i, k, 1) + tr11 * ci2 + tr12 * ci3;
            const T tr3 = cc(i - 1, k, 1) + tr12 * cr2 + tr11 * cr3;
            const T ti3 = cc(i, k, 1) + tr12 * ci2 + tr11 * ci3;
            const T tr5 = ti11 * cr5 + ti12 * cr4;
            const T ti5 = ti11 * ci5 + ti12 * ci4;
            const T tr4 = ti12 * cr5 - ti11 * cr4;
            const T ti4 = ti12 * ci5 - ti11 * ci4;
            ch(i - 1, 3, k) = tr2 + tr5;
            ch(ic - 1, 2, k) = tr2 - tr5;
            ch(i, 3, k) = ti2 + ti5;
            ch(ic, 2, k) = ti5 - ti2;
            ch(i - 1, 5, k) = tr3 + tr4;
            ch(ic - 1, 4, k) = tr3 - tr4;
            ch(i, 5, k) = ti3 + ti4;
            ch(ic, 4, k) = ti4 - ti3;
        }
    }
}

// General odd radix. The input lies in `ccData` (in `chData` when ido == 1); the result
// is left in `ccData`; the other array is work space.
template <class T>
void radfg(int ido, int ip, int l1, int idl1, T* ccData, T* chData, const float* wa) {
    const Array3<T> cc(ccData, ido, ip);
    const Array3<T> c1(ccData, ido, l1);
    const Array2<T> c2(ccData, idl1);
    const Array3<T> ch(chData, ido, l1);
    const Array2<T> ch2(chData, idl1);
    const float arg = twoPi / static_cast<float>(ip);
    const float dcp = std::cos(arg);
    const float dsp = std::sin(arg);
    const int ipph = (ip + 1) / 2;
    const int ipp2 = ip + 2;
    const int idp2 = ido + 2;

    if (ido == 1) {
        for (int ik = 1; ik <= idl1; ++ik) {
            c2(ik, 1) = ch2(ik, 1);
        }
    } else {
        for (int ik = 1; ik <= idl1; ++ik) {
            ch2(ik, 1) = c2(ik, 1);
        }
        for (int j = 2; j <= ip; ++j) {
            for (int k = 1; k <= l1; ++k) {
                ch(1, k, j) = c1(1, k, j);
            }
        }
        for (int j = 2; j <= ip; ++j) {
            const float* w = wa + (j - 2) * ido;
            for (int k = 1; k <= l1; ++k) {
                for (int i = 3; i <= ido; i += 2) {
                    ch(i - 1, k, j) = w[i - 3] * c1(i - 1, k, j) + w[i - 2] * c1(i, k, j);
                    ch(i, k, j) = w[i - 3] * c1(i, k, j) - w[i - 2] * c1(i - 1, k, j);
                }
            }
        }
        for (int j = 2; j <= ipph; ++j) {
            const int jc = ipp2 - j;
            for (int k = 1; k <= l1; ++k) {
                for (int i = 3; i <= ido; i += 2) {
                    c1(i - 1, k, j) = ch(i - 1, k, j) + ch(i - 1, k, jc);
                    c1(i - 1, k, jc) = ch(i, k, j) - ch(i, k, jc);
                    c1(i, k, j) = ch(i, k, j) + ch(i, k, jc);
                    c1(i, k, jc) = ch(i - 1, k, jc) - ch(i - 1, k, j);
                }
            }
        }
    }
    for (int j = 2; j <= ipph; ++j) {
        const int jc = ipp2 - j;
        for (int k = 1; k <= l1; ++k) {
            c1(1, k, j) = ch(1, k, j) + ch(1, k, jc);
            c1(1, k, jc) = ch(1, k, jc) - ch(1, k, j);
        }
    }

    // The roots of unity by recurrence from exp(2 pi i / ip).
    float ar1 = 1.0f;
    float ai1 = 0.0f;
    for (int l = 2; l <= ipph; ++l) {
        const int lc = ipp2 - l;
        const float ar1h = dcp * ar1 - dsp * ai1;
        ai1 = dcp * ai1 + dsp * ar1;
        ar1 = ar1h;
        for (int ik = 1; ik <= idl1; ++ik) {
            ch2(ik, l) = c2(ik, 1) + ar1 * c2(ik, 2);
            ch2(ik, lc) = ai1 * c2(ik, ip);
        }
        const float dc2 = ar1;
        const float ds2 = ai1;
        float ar2 = ar1;
        float ai2 = ai1;
        for (int j = 3; j <= ipph; ++j) {
            const int jc = ipp2 - j;
            const float ar2h = dc2 * ar2 - ds2 * ai2;
            ai2 = dc2 * ai2 + ds2 * ar2;
            ar2 = ar2h;
            for (int ik = 1; ik <= idl1; ++ik) {
                ch2(ik, l) = ch2(ik, l) + ar2 * c2(ik, j);
                ch2(ik, lc) = ch2(ik, lc) + ai2 * c2(ik, jc);
            }
        }
    }
    for (int j = 2; j <= ipph; ++j) {
        for (int ik = 1; ik <= idl1; ++ik) {
            ch2(ik, 1) = ch2(ik, 1) + c2(ik, j);
        }
    }

    for (int k = 1; k <= l1; ++k) {
        for (int i = 1; i <= ido; ++i) {
            cc(i, 1, k) = ch(i, k, 1);
        }
    }
    for (int j = 2; j <= ipph; ++j) {
        const int jc = ipp2 - j;
        const int j2 = j + j;
        for (int k = 1; k <= l1; ++k) {
            cc(ido, j2 - 2, k) = ch(1, k, j);
            cc(1, j2 - 1, k) = ch(1, k, jc);
        }
    }
    for (int j = 2; j <= ipph; ++j) {
        const int jc = ipp2 - j;
        const int j2 = j + j;
        for (int k = 1; k <= l1; ++k) {
            for (int i = 3; i <= ido; i += 2) {
                const int ic = idp2 - i;
                cc(i - 1, j2 - 1, k) = ch(i - 1, k, j) + ch(i - 1, k, jc);
                cc(ic - 1, j2 - 2, k) = ch(i - 1, k, j) - ch(i - 1, k, jc);
                cc(i, j2 - 1, k) = ch(i, k, j) + ch(i, k, jc);
                cc(ic, j2 - 2, k) = ch(i, k, jc) - ch(i, k, j);
            }
        }
    }
}

// ---------------------------------------------------------------------------------------
// Real backward passes: cc(ido, ip, l1) -> ch(ido, l1, ip).

template <class T>
void radb2(int ido, int l1, const T* ccData, T* chData, const float* wa1) {
    const Array3<const T> cc(ccData, ido, 2);
    const Array3<T> ch(chData, ido, l1);
    for (int k = 1; k <= l1; ++k) {
        ch(1, k, 1) = cc(1, 1, k) + cc(ido, 2, k);
        ch(1, k, 2) = cc(1, 1, k) - cc(ido, 2, k);
    }
    if (ido < 2) {
        return;
    }
    if (ido > 2) {
        for (int k = 1; k <= l1; ++k) {
            for (int i = 3; i <= ido; i += 2) {
                const int ic = ido + 2 - i;
                ch(i - 1, k, 1) = cc(i - 1, 1, k) + cc(ic - 1, 2, k);
                const T tr2 = cc(i - 1, 1, k) - cc(ic - 1, 2, k);
                ch(i, k, 1) = cc(i, 1, k) - cc(ic, 2, k);
                const T ti2 = cc(i, 1, k) + cc(ic, 2, k);
                ch(i - 1, k, 2) = wa1[i - 3] * tr2 - wa1[i - 2] * ti2;
                ch(i, k, 2) = wa1[i - 3] * ti2 + wa1[i - 2] * tr2;
            }
        }
        if (ido % 2 == 1) {
            return;
        }
    }
    for (int k = 1; k <= l1; ++k) {
        ch(ido, k, 1) = cc(ido, 1, k) + cc(ido, 1, k);
        ch(ido, k, 2) = -(cc(1, 2, k) + cc(1, 2, k));
    }
}

template <class T>
void radb3(int ido, int l1, const T* ccData, T* chData, const float* wa1, const float* wa2) {
    const Array3<const T> cc(ccData, ido, 3);
    const Array3<T> ch(chData, ido, l1);
    for (int k = 1; k <= l1; ++k) {
        const T tr2 = cc(ido, 2, k) + cc(ido, 2, k);
        const T cr2 = cc(1, 1, k) + taur * tr2;
        ch(1, k, 1) = cc(1, 1, k) + tr2;
        const T ci3 = taui * (cc(1, 3, k) + cc(1, 3, k));
        ch(1, k, 2) = cr2 - ci3;
        ch(1, k, 3) = cr2 + ci3;
    }
    for (int k = 1; k <= l1; ++k) {
        for (int i = 3; i <= ido; i += 2) {
            const int ic = ido + 2 - i;
            const T tr2 = cc(i - 1, 3, k) + cc(ic - 1, 2, k);
            const T cr2 = cc(i - 1, 1, k) + taur * tr2;
            ch(i - 1, k, 1) = cc(i - 1, 1, k) + tr2;
            const T ti2 = cc(i, 3, k) - cc(ic, 2, k);
            const T ci2 = cc(i, 1, k) + taur * ti2;
            ch(i, k, 1) = cc(i, 1, k) + ti2;
            const T cr3 = taui * (cc(i - 1, 3, k) - cc(ic - 1, 2, k));
            const T ci3 = taui * (cc(i, 3, k) + cc(ic, 2, k));
            const T dr2 = cr2 - ci3;
            const T dr3 = cr2 + ci3;
            const T di2 = ci2 + cr3;
            const T di3 = ci2 - cr3;
            ch(i - 1, k, 2) = wa1[i - 3] * dr2 - wa1[i - 2] * di2;
            ch(i, k, 2) = wa1[i - 3] * di2 + wa1[i - 2] * dr2;
            ch(i - 1, k, 3) = wa2[i - 3] * dr3 - wa2[i - 2] * di3;
            ch(i, k, 3) = wa2[i - 3] * di3 + wa2[i - 2] * dr3;
        }
    }
}

template <class T>
void radb4(int ido, int l1, const T* ccData, T* chData, const float* wa1, const float* wa2,
           const float* wa3) {
    const Array3<const T> cc(ccData, ido, 4);
    const Array3<T> ch(chData, ido, l1);
    for (int k = 1; k <= l1; ++k) {
        const T tr1 = cc(1, 1, k) - cc(ido, 4, k);
        const T tr2 = cc(1, 1, k) + cc(ido, 4, k);
        const T tr3 = cc(ido, 2, k) + cc(ido, 2, k);
        const T tr4 = cc(1, 3, k) + cc(1, 3, k);
        ch(1, k, 1) = tr2 + tr3;
        ch(1, k, 2) = tr1 - tr4;
        ch(1, k, 3) = tr2 - tr3;
        ch(1, k, 4) = tr1 + tr4;
    }
    if (ido < 2) {
        return;
    }
    if (ido > 2) {
        for (int k = 1; k <= l1; ++k) {
            for (int i = 3; i <= ido; i += 2) {
                const int ic = ido + 2 - i;
                const T ti1 = cc(i, 1, k) + cc(ic, 4, k);
                const T ti2 = cc(i, 1, k) - cc(ic, 4, k);
                const T ti3 = cc(i, 3, k) - cc(ic, 2, k);
                const T tr4 = cc(i, 3, k) + cc(ic, 2, k);
                const T tr1 = cc(i - 1, 1, k) - cc(ic - 1, 4, k);
                const T tr2 = cc(i - 1, 1, k) + cc(ic - 1, 4, k);
                const T ti4 = cc(i - 1, 3, k) - cc(ic - 1, 2, k);
                const T tr3 = cc(i - 1, 3, k) + cc(ic - 1, 2, k);
                ch(i - 1, k, 1) = tr2 + tr3;
                const T cr3 = tr2 - tr3;
                ch(i, k, 1) = ti2 + ti3;
                const T ci3 = ti2 - ti3;
                const T cr2 = tr1 - tr4;
                const T cr4 = tr1 + tr4;
                const T ci2 = ti1 + ti4;
                const T ci4 = ti1 - ti4;
                ch(i - 1, k, 2) = wa1[i - 3] * cr2 - wa1[i - 2] * ci2;
                ch(i, k, 2) = wa1[i - 3] * ci2 + wa1[i - 2] * cr2;
                ch(i - 1, k, 3) = wa2[i - 3] * cr3 - wa2[i - 2] * ci3;
                ch(i, k, 3) = wa2[i - 3] * ci3 + wa2[i - 2] * cr3;
                ch(i - 1, k, 4) = wa3[i - 3] * cr4 - wa3[i - 2] * ci4;
                ch(i, k, 4) = wa3[i - 3] * ci4 + wa3[i - 2] * cr4;
            }
        }
        if (ido % 2 == 1) {
            return;
        }
    }
    for (int k = 1; k <= l1; ++k) {
        const T ti1 = cc(1, 2, k) + cc(1, 4, k);
        const T ti2 = cc(1, 4, k) - cc(1, 2, k);
        const T tr1 = cc(ido, 1, k) - cc(ido, 3, k);
        const T tr2 = cc(ido, 1, k) + cc(ido, 3, k);
        ch(ido, k, 1) = tr2 + tr2;
        ch(ido, k, 2) = sqrt2 * (tr1 - ti1);
        ch(ido, k, 3) = ti2 + ti2;
        ch(ido, k, 4) = -sqrt2 * (tr1 + ti1);
    }
}

template <class T>
void radb5(int ido, int l1, const T* ccData, T* chData, const float* wa1, const float* wa2,
           const float* wa3, const float* wa4) {
    const Array3<const T> cc(ccData, ido, 5);
    const Array3<T> ch(chData, ido, l1);
    for (int k = 1; k <= l1; ++k) {
        const T ti5 = cc(1, 3, k) + cc(1, 3, k);
        const T ti4 = cc(1, 5, k) + cc(1, 5, k);
        const T tr2 = cc(ido, 2, k) + cc(ido, 2, k);
        const T tr3 = cc(ido, 4, k) + cc(ido, 4, k);
        ch(1, k, 1) = cc(1, 1, k) + tr2 + tr3;
        const T cr2 = cc(1, 1, k) + tr11 * tr2 + tr12 * tr3;
        const T cr3 = cc(1, 1, k) + tr12 * tr2 + tr11 * tr3;
        const T ci5 = ti11 * ti5 + ti12 * ti4;
        const T ci4 = ti12 * ti5 - ti11 * ti4;
        ch(1, k, 2) = cr2 - ci5;
        ch(1, k, 3) = cr3 - ci4;
        ch(1, k, 4) = cr3 + ci4;
        ch(1, k, 5) = cr2 + ci5;
    }
    for (int k = 1; k <= l1; ++k) {
        for (int i = 3; i <= ido; i += 2) {
            const int ic = ido + 2 - i;
            const T ti5 = cc(i, 3, k) + cc(ic, 2, k);
            const T ti2 = cc(i, 3, k) - cc(ic, 2, k);
            const T ti4 = cc(i, 5, k) + cc(ic, 4, k);
            const T ti3 = cc(i, 5, k) - cc(ic, 4, k);
            const T tr5 = cc(i - 1, 3, k) - cc(ic - 1, 2, k);
            const T tr2 = cc(i - 1, 3, k) + cc(ic - 1, 2, k);
            const T tr4 = cc(i - 1, 5, k) - cc(ic - 1, 4, k);
            const T tr3 = cc(i - 1, 5, k) + cc(ic - 1, 4, k);
            ch(i - 1, k, 1) = cc(i - 1, 1, k) + tr2 + tr3;
            ch(i, k, 1) = cc(i, 1, k) + ti2 + ti3;
            const T cr2 = cc(i - 1, 1, k) + tr11 * tr2 + tr12 * tr3;
            const T ci2 = cc(i, 1, k) + tr11 * ti2 + tr12 * ti3;
            const T cr3 = cc(i - 1, 1, k) + tr12 * tr2 + tr11 * tr3;
            const T ci3 = cc(i, 1, k) + tr12 * ti2 + tr11 * ti3;
            const T cr5 = ti11 * tr5 + ti12 * tr4;
            const T ci5 = ti11 * ti5 + ti12 * ti4;
            const T cr4 = ti12 * tr5 - ti11 * tr4;
            const T ci4 = ti12 * ti5 - ti11 * ti4;
            const T dr3 = cr3 - ci4;
            const T dr4 = cr3 + ci4;
            const T di3 = ci3 + cr4;
            const T di4 = ci3 - cr4;
            const T dr5 = cr2 + ci5;
            const T dr2 = cr2 - ci5;
            const T di5 = ci2 - cr5;
            const T di2 = ci2 + cr5;
            ch(i - 1, k, 2) = wa1[i - 3] * dr2 - wa1[i - 2] * di2;
            ch(i, k, 2) = wa1[i - 3] * di2 + wa1[i - 2] * dr2;
            ch(i - 1, k, 3) = wa2[i - 3] * dr3 - wa2[i - 2] * di3;
            ch(i, k, 3) = wa2[i - 3] * di3 + wa2[i - 2] * dr3;
            ch(i - 1, k, 4) = wa3[i - 3] * dr4 - wa3[i - 2] * di4;
            ch(i, k, 4) = wa3[i - 3] * di4 + wa3[i - 2] * dr4;
            ch(i - 1, k, 5) = wa4[i - 3] * dr5 - wa4[i - 2] * di5;
            ch(i, k, 5) = wa4[i - 3] * di5 + wa4[i - 2] * dr5;
        }
    }
}

// General odd radix. The input lies in `ccData`; the result is left in `chData` when
// ido == 1, else in `ccData`; the other array is work space.
template <class T>
void radbg(int ido, int ip, int l1, int idl1, T* ccData, T* chData, const float* wa) {
    const Array3<T> cc(ccData, ido, ip);
    const Array3<T> c1(ccData, ido, l1);
    const Array2<T> c2(ccData, idl1);
    const Array3<T> ch(chData, ido, l1);
    const Array2<T> ch2(chData, idl1);
    const float arg = twoPi / static_cast<float>(ip);
    const float dcp = std::cos(arg);
    const float dsp = std::sin(arg);
    const int ipph = (ip + 1) / 2;
    const int ipp2 = ip + 2;
    const int idp2 = ido + 2;

    for (int k = 1; k <= l1; ++k) {
        for (int i = 1; i <= ido; ++i) {
            ch(i, k, 1) = cc(i, 1, k);
        }
    }
    for (int j = 2; j <= ipph; ++j) {
        const int jc = ipp2 - j;
        const int j2 = j + j;
        for (int k = 1; k <= l1; ++k) {
            ch(1, k, j) = cc(ido, j2 - 2, k) + cc(ido, j2 - 2, k);
            ch(1, k, jc) = cc(1, j2 - 1, k) + cc(1, j2 - 1, k);
        }
    }
    for (int j = 2; j <= ipph; ++j) {
        const int jc = ipp2 - j;
        for (int k = 1; k <= l1; ++k) {
            for (int i = 3; i <= ido; i += 2) {
                const int ic = idp2 - i;
                ch(i - 1, k, j) = cc(i - 1, 2 * j - 1, k) + cc(ic - 1, 2 * j - 2, k);
                ch(i - 1, k, jc) = cc(i - 1, 2 * j - 1, k) - cc(ic - 1, 2 * j - 2, k);
                ch(i, k, j) = cc(i, 2 * j - 1, k) - cc(ic, 2 * j - 2, k);
                ch(i, k, jc) = cc(i, 2 * j - 1, k) + cc(ic, 2 * j - 2, k);
            }
        }
    }

    float ar1 = 1.0f;
    float ai1 = 0.0f;
    for (int l = 2; l <= ipph; ++l) {
        const int lc = ipp2 - l;
        const float ar1h = dcp * ar1 - dsp * ai1;
        ai1 = dcp * ai1 + dsp * ar1;
        ar1 = ar1h;
        for (int ik = 1; ik <= idl1; ++ik) {
            c2(ik, l) = ch2(ik, 1) + ar1 * ch2(ik, 2);
            c2(ik, lc) = ai1 * ch2(ik, ip);
        }
        const float dc2 = ar1;
        const float ds2 = ai1;
        float ar2 = ar1;
        float ai2 = ai1;
        for (int j = 3; j <= ipph; ++j) {
            const int jc = ipp2 - j;
            const float ar2h = dc2 * ar2 - ds2 * ai2;
            ai2 = dc2 * ai2 + ds2 * ar2;
            ar2 = ar2h;
            for (int ik = 1; ik <= idl1; ++ik) {
                c2(ik, l) = c2(ik, l) + ar2 * ch2(ik, j);
                c2(ik, lc) = c2(ik, lc) + ai2 * ch2(ik, jc);
            }
        }
    }
    for (int j = 2; j <= ipph; ++j) {
        for (int ik = 1; ik <= idl1; ++ik) {
            ch2(ik, 1) = ch2(ik, 1) + ch2(ik, j);
        }
    }
    for (int j = 2; j <= ipph; ++j) {
        const int jc = ipp2 - j;
        for (int k = 1; k <= l1; ++k) {
            ch(1, k, j) = c1(1, k, j) - c1(1, k, jc);
            ch(1, k, jc) = c1(1, k, j) + c1(1, k, jc);
        }
    }
    if (ido == 1) {
        return;
    }
    for (int j = 2; j <= ipph; ++j) {
        const int jc = ipp2 - j;
        for (int k = 1; k <= l1; ++k) {
            for (int i = 3; i <= ido; i += 2) {
                ch(i - 1, k, j) = c1(i - 1, k, j) - c1(i, k, jc);
                ch(i - 1, k, jc) = c1(i - 1, k, j) + c1(i, k, jc);
                ch(i, k, j) = c1(i, k, j) + c1(i - 1, k, jc);
                ch(i, k, jc) = c1(i, k, j) - c1(i - 1, k, jc);
            }
        }
    }
    for (int ik = 1; ik <= idl1; ++ik) {
        c2(ik, 1) = ch2(ik, 1);
    }
    for (int j = 2; j <= ip; ++j) {
        for (int k = 1; k <= l1; ++k) {
            c1(1, k, j) = ch(1, k, j);
        }
    }
    for (int j = 2; j <= ip; ++j) {
        const float* w = wa + (j - 2) * ido;
        for (int k = 1; k <= l1; ++k) {
            for (int i = 3; i <= ido; i += 2) {
                c1(i - 1, k, j) = w[i - 3] * ch(i - 1, k, j) - w[i - 2] * ch(i, k, j);
                c1(i, k, j) = w[i - 3] * ch(i, k, j) + w[i - 2] * ch(i - 1, k, j);
            }
        }
    }
}

// ---------------------------------------------------------------------------------------
// Complex passes: cc(ido, ip, l1) -> ch(ido, l1, ip), ido counting floats. Forward
// multiplies by conj(w), backward by w.

template <bool Forward, class T>
void storeTwiddled(T& re, T& im, float wr, float wi, const T& dr, const T& di) {
    if constexpr (Forward) {
        re = wr * dr + wi * di;
        im = wr * di - wi * dr;
    } else {
        re = wr * dr - wi * di;
        im = wr * di + wi * dr;
    }
}

template <bool Forward, class T>
void pass2(int ido, int l1, const T* ccData, T* chData, const float* wa1) {
    const Array3<const T> cc(ccData, ido, 2);
    const Array3<T> ch(chData, ido, l1);
    for (int k = 1; k <= l1; ++k) {
        for (int i = 2; i <= ido; i += 2) {
            ch(i - 1, k, 1) = cc(i - 1, 1, k) + cc(i - 1, 2, k);
            const T tr2 = cc(i - 1, 1, k) - cc(i - 1, 2, k);
            ch(i, k, 1) = cc(i, 1, k) + cc(i, 2, k);
            const T ti2 = cc(i, 1, k) - cc(i, 2, k);
            if (ido == 2) {
                ch(1, k, 2) = tr2;
                ch(2, k, 2) = ti2;
            } else {
                storeTwiddled<Forward>(ch(i - 1, k, 2), ch(i, k, 2), wa1[i - 2], wa1[i - 1], tr2,
                                       ti2);
            }
        }
    }
}

template <bool Forward, class T>
void pass3(int ido, int l1, const T* ccData, T* chData, const float* wa1, const float* wa2) {
    constexpr float signedTaui = Forward ? -taui : taui;
    const Array3<const T> cc(ccData, ido, 3);
    const Array3<T> ch(chData, ido, l1);
    for (int k = 1; k <= l1; ++k) {
        for (int i = 2; i <= ido; i += 2) {
            const T tr2 = cc(i - 1, 2, k) + cc(i - 1, 3, k);
            const T cr2 = cc(i - 1, 1, k) + taur * tr2;
            ch(i - 1, k, 1) = cc(i - 1, 1, k) + tr2;
            const T ti2 = cc(i, 2, k) + cc(i, 3, k);
            const T ci2 = cc(i, 1, k) + taur * ti2;
            ch(i, k, 1) = cc(i, 1, k) + ti2;
            const T cr3 = signedTaui * (cc(i - 1, 2, k) - cc(i - 1, 3, k));
            const T ci3 = signedTaui * (cc(i, 2, k) - cc(i, 3, k));
            const T dr2 = cr2 - ci3;
            const T dr3 = cr2 + ci3;
            const T di2 = ci2 + cr3;
            const T di3 = ci2 - cr3;
            if (ido == 2) {
                ch(1, k, 2) = dr2;
                ch(1, k, 3) = dr3;
                ch(2, k, 2) = di2;
                ch(2, k, 3) = di3;
            } else {
                storeTwiddled<Forward>(ch(i - 1, k, 2), ch(i, k, 2), wa1[i - 2], wa1[i - 1], dr2,
                                       di2);
                storeTwiddled<Forward>(ch(i - 1, k, 3), ch(i, k, 3), wa2[i - 2], wa2[i - 1], dr3,
                                       di3);
            }
        }
    }
}

template <bool Forward, class T>
void pass4(int ido, int l1, const T* ccData, T* chData, const float* wa1, const float* wa2,
           const float* wa3) {
    const Array3<const T> cc(ccData, ido, 4);
    const Array3<T> ch(chData, ido, l1);
    for (int k = 1; k <= l1; ++k) {
        for (int i = 2; i <= ido; i += 2) {
            const T ti1 = cc(i, 1, k) - cc(i, 3, k);
            const T ti2 = cc(i, 1, k) + cc(i, 3, k);
            const T ti3 = cc(i, 2, k) + cc(i, 4, k);
            const T tr4 = Forward ? cc(i, 2, k) - cc(i, 4, k) : cc(i, 4, k) - cc(i, 2, k);
            const T tr1 = cc(i - 1, 1, k) - cc(i - 1, 3, k);
            const T tr2 = cc(i - 1, 1, k) + cc(i - 1, 3, k);
            const T ti4 =
                Forward ? cc(i - 1, 4, k) - cc(i - 1, 2, k) : cc(i - 1, 2, k) - cc(i - 1, 4, k);
            const T tr3 = cc(i - 1, 2, k) + cc(i - 1, 4, k);
            ch(i - 1, k, 1) = tr2 + tr3;
            const T cr3 = tr2 - tr3;
            ch(i, k, 1) = ti2 + ti3;
            const T ci3 = ti2 - ti3;
            const T cr2 = tr1 + tr4;
            const T cr4 = tr1 - tr4;
            const T ci2 = ti1 + ti4;
            const T ci4 = ti1 - ti4;
            if (ido == 2) {
                ch(1, k, 2) = cr2;
                ch(1, k, 4) = cr4;
                ch(2, k, 2) = ci2;
                ch(2, k, 4) = ci4;
                ch(1, k, 3) = cr3;
                ch(2, k, 3) = ci3;
            } else {
                storeTwiddled<Forward>(ch(i - 1, k, 2), ch(i, k, 2), wa1[i - 2], wa1[i - 1], cr2,
                                       ci2);
                storeTwiddled<Forward>(ch(i - 1, k, 3), ch(i, k, 3), wa2[i - 2], wa2[i - 1], cr3,
                                       ci3);
                storeTwiddled<Forward>(ch(i - 1, k, 4), ch(i, k, 4), wa3[i - 2], wa3[i - 1], cr4,
                                       ci4);
            }
        }
    }
}

template <bool Forward, class T>
void pass5(int ido, int l1, const T* ccData, T* chData, const float* wa1, const float* wa2,
           const float* wa3, const float* wa4) {
    constexpr float signedTi11 = Forward ? -ti11 : ti11;
    constexpr float signedTi12 = Forward ? -ti12 : ti12;
    const Array3<const T> cc(ccData, ido, 5);
    const Array3<T> ch(chData, ido, l1);
    for (int k = 1; k <= l1; ++k) {
        for (int i = 2; i <= ido; i += 2) {
            const T ti5 = cc(i, 2, k) - cc(i, 5, k);
            const T ti2 = cc(i, 2, k) + cc(i, 5, k);
            const T ti4 = cc(i, 3, k) - cc(i, 4, k);
            const T ti3 = cc(i, 3, k) + cc(i, 4, k);
            const T tr5 = cc(i - 1, 2, k) - cc(i - 1, 5, k);
            const T tr2 = cc(i - 1, 2, k) + cc(i - 1, 5, k);
            const T tr4 = cc(i - 1, 3, k) - cc(i - 1, 4, k);
            const T tr3 = cc(i - 1, 3, k) + cc(i - 1, 4, k);
            ch(i - 1, k, 1) = cc(i - 1, 1, k) + tr2 + tr3;
            ch(i, k, 1) = cc(i, 1, k) + ti2 + ti3;
            const T cr2 = cc(i - 1, 1, k) + tr11 * tr2 + tr12 * tr3;
            const T ci2 = cc(i, 1, k) + tr11 * ti2 + tr12 * ti3;
            const T cr3 = cc(i - 1, 1, k) + tr12 * tr2 + tr11 * tr3;
            const T ci3 = cc(i, 1, k) + tr12 * ti2 + tr11 * ti3;
            const T cr5 = signedTi11 * tr5 + signedTi12 * tr4;
            const T ci5 = signedTi11 * ti5 + signedTi12 * ti4;
            const T cr4 = signedTi12 * tr5 - signedTi11 * tr4;
            const T ci4 = signedTi12 * ti5 - signedTi11 * ti4;
            const T dr3 = cr3 - ci4;
            const T dr4 = cr3 + ci4;
            const T di3 = ci3 + cr4;
            const T di4 = ci3 - cr4;
            const T dr5 = cr2 + ci5;
            const T dr2 = cr2 - ci5;
            const T di5 = ci2 - cr5;
            const T di2 = ci2 + cr5;
            if (ido == 2) {
                ch(1, k, 2) = dr2;
                ch(2, k, 2) = di2;
                ch(1, k, 3) = dr3;
                ch(2, k, 3) = di3;
                ch(1, k, 4) = dr4;
                ch(2, k, 4) = di4;
                ch(1, k, 5) = dr5;
                ch(2, k, 5) = di5;
            } else {
                storeTwiddled<Forward>(ch(i - 1, k, 2), ch(i, k, 2), wa1[i - 2], wa1[i - 1], dr2,
                                       di2);
                storeTwiddled<Forward>(ch(i - 1, k, 3), ch(i, k, 3), wa2[i - 2], wa2[i - 1], dr3,
                                       di3);
                storeTwiddled<Forward>(ch(i - 1, k, 4), ch(i, k, 4), wa3[i - 2], wa3[i - 1], dr4,
                                       di4);
                storeTwiddled<Forward>(ch(i - 1, k, 5), ch(i, k, 5), wa4[i - 2], wa4[i - 1], dr5,
                                       di5);
            }
        }
    }
}

// General odd radix. Returns true when the result is in `chData`, false when it was
// written back over `ccData` (ido > 2); the other array is work space.
template <bool Forward, class T>
bool passg(int ido, int ip, int l1, int idl1, T* ccData, T* chData, const float* wa) {
    const Array3<T> cc(ccData, ido, ip);
    const Array3<T> c1(ccData, ido, l1);
    const Array2<T> c2(ccData, idl1);
    const Array3<T> ch(chData, ido, l1);
    const Array2<T> ch2(chData, idl1);
    const int ipph = (ip + 1) / 2;
    const int ipp2 = ip + 2;
    const int idp = ip * ido;

    for (int j = 2; j <= ipph; ++j) {
        const int jc = ipp2 - j;
        for (int k = 1; k <= l1; ++k) {
            for (int i = 1; i <= ido; ++i) {
                ch(i, k, j) = cc(i, j, k) + cc(i, jc, k);
                ch(i, k, jc) = cc(i, j, k) - cc(i, jc, k);
            }
        }
    }
    for (int k = 1; k <= l1; ++k) {
        for (int i = 1; i <= ido; ++i) {
            ch(i, k, 1) = cc(i, 1, k);
        }
    }

    // The heads of the twiddle runs hold the ip-th roots of unity.
    int idl = 2 - ido;
    int inc = 0;
    for (int l = 2; l <= ipph; ++l) {
        const int lc = ipp2 - l;
        idl += ido;
        for (int ik = 1; ik <= idl1; ++ik) {
            c2(ik, l) = ch2(ik, 1) + wa[idl - 2] * ch2(ik, 2);
            c2(ik, lc) = Forward ? -wa[idl - 1] * ch2(ik, ip) : wa[idl - 1] * ch2(ik, ip);
        }
        int idlj = idl;
        inc += ido;
        for (int j = 3; j <= ipph; ++j) {
            const int jc = ipp2 - j;
            idlj += inc;
            if (idlj > idp) {
                idlj -= idp;
            }
            const float war = wa[idlj - 2];
            const float wai = wa[idlj - 1];
            for (int ik = 1; ik <= idl1; ++ik) {
                c2(ik, l) = c2(ik, l) + war * ch2(ik, j);
                c2(ik, lc) =
                    Forward ? c2(ik, lc) - wai * ch2(ik, jc) : c2(ik, lc) + wai * ch2(ik, jc);
            }
        }
    }
    for (int j = 2; j <= ipph; ++j) {
        for (int ik = 1; ik <= idl1; ++ik) {
            ch2(ik, 1) = ch2(ik, 1) + ch2(ik, j);
        }
    }
    for (int j = 2; j <= ipph; ++j) {
        const int jc = ipp2 - j;
        for (int ik = 2; ik <= idl1; ik += 2) {
            ch2(ik - 1, j) = c2(ik - 1, j) - c2(ik, jc);
            ch2(ik - 1, jc) = c2(ik - 1, j) + c2(ik, jc);
            ch2(ik, j) = c2(ik, j) + c2(ik - 1, jc);
            ch2(ik, jc) = c2(ik, j) - c2(ik - 1, jc);
        }
    }
    if (ido == 2) {
        return true;
    }
    for (int ik = 1; ik <= idl1; ++ik) {
        c2(ik, 1) = ch2(ik, 1);
    }
    for (int j = 2; j <= ip; ++j) {
        for (int k = 1; k <= l1; ++k) {
            c1(1, k, j) = ch(1, k, j);
            c1(2, k, j) = ch(2, k, j);
        }
    }
    for (int j = 2; j <= ip; ++j) {
        const float* w = wa + (j - 2) * ido;
        for (int k = 1; k <= l1; ++k) {
            for (int i = 4; i <= ido; i += 2) {
                storeTwiddled<Forward>(c1(i - 1, k, j), c1(i, k, j), w[i - 2], w[i - 1],
                                       ch(i - 1, k, j), ch(i, k, j));
            }
        }
    }
    return false;
}

// ---------------------------------------------------------------------------------------
// Drivers. `c` holds the data, `ch` is work space of the same size; the passes
// alternate between them, and the driver returns the one that holds the result.

template <class T>
T* realForward(int n, T* c, T* ch, const float* wa, const int* factors) {
    if (n <= 1) {
        return c;
    }
    const int nf = factors[1];
    bool inCh = true;  // toggled before each pass: true means the pass reads ch
    int l2 = n;
    int iw = n - 1;
    for (int k1 = 1; k1 <= nf; ++k1) {
        const int ip = factors[nf - k1 + 2];
        const int l1 = l2 / ip;
        const int ido = n / l2;
        const int idl1 = ido * l1;
        iw -= (ip - 1) * ido;
        inCh = !inCh;
        T* in = inCh ? ch : c;
        T* out = inCh ? c : ch;
        const float* w = wa + iw;
        switch (ip) {
            case 4:
                radf4(ido, l1, in, out, w, w + ido, w + 2 * ido);
                break;
            case 2:
                radf2(ido, l1, in, out, w);
                break;
            case 3:
                radf3(ido, l1, in, out, w, w + ido);
                break;
            case 5:
                radf5(ido, l1, in, out, w, w + ido, w + 2 * ido, w + 3 * ido);
                break;
            default:
                // The general pass leaves its result where its input was, except that
                // with ido == 1 it reads from its work array.
                if (ido == 1) {
                    inCh = !inCh;
                }
                if (inCh) {
                    radfg(ido, ip, l1, idl1, ch, c, w);
                    inCh = false;
                } else {
                    radfg(ido, ip, l1, idl1, c, ch, w);
                    inCh = true;
                }
                break;
        }
        l2 = l1;
    }
    return inCh ? c : ch;
}

template <class T>
T* realBackward(int n, T* c, T* ch, const float* wa, const int* factors) {
    if (n <= 1) {
        return c;
    }
    const int nf = factors[1];
    bool inCh = false;  // where the data is before the next pass
    int l1 = 1;
    int iw = 0;
    for (int k1 = 1; k1 <= nf; ++k1) {
        const int ip = factors[k1 + 1];
        const int l2 = ip * l1;
        const int ido = n / l2;
        const int idl1 = ido * l1;
        T* in = inCh ? ch : c;
        T* out = inCh ? c : ch;
        const float* w = wa + iw;
        switch (ip) {
            case 4:
                radb4(ido, l1, in, out, w, w + ido, w + 2 * ido);
                inCh = !inCh;
                break;
            case 2:
                radb2(ido, l1, in, out, w);
                inCh = !inCh;
                break;
            case 3:
                radb3(ido, l1, in, out, w, w + ido);
                inCh = !inCh;
                break;
            case 5:
                radb5(ido, l1, in, out, w, w + ido, w + 2 * ido, w + 3 * ido);
                inCh = !inCh;
                break;
            default:
                radbg(ido, ip, l1, idl1, in, out, w);
                if (ido == 1) {
                    inCh = !inCh;
                }
                break;
        }
        l1 = l2;
        iw += (ip - 1) * ido;
    }
    return inCh ? ch : c;
}

template <bool Forward, class T>
T* complexTransform(int n, T* c, T* ch, const float* wa, const int* factors) {
    if (n <= 1) {
        return c;
    }
    const int nf = factors[1];
    bool inCh = false;
    int l1 = 1;
    int iw = 0;
    for (int k1 = 2; k1 <= nf + 1; ++k1) {
        const int ip = factors[k1];
        const int l2 = ip * l1;
        const int ido = n / l2;
        const int idot = ido + ido;
        const int idl1 = idot * l1;
        T* in = inCh ? ch : c;
        T* out = inCh ? c : ch;
        const float* w = wa + iw;
        switch (ip) {
            case 4:
                pass4<Forward>(idot, l1, in, out, w, w + idot, w + 2 * idot);
                inCh = !inCh;
                break;
            case 2:
                pass2<Forward>(idot, l1, in, out, w);
                inCh = !inCh;
                break;
            case 3:
                pass3<Forward>(idot, l1, in, out, w, w + idot);
                inCh = !inCh;
                break;
            case 5:
                pass5<Forward>(idot, l1, in, out, w, w + idot, w + 2 * idot, w + 3 * idot);
                inCh = !inCh;
                break;
            default:
                if (passg<Forward>(idot, ip, l1, idl1, in, out, w)) {
                    inCh = !inCh;
                }
                break;
        }
        l1 = l2;
        iw += (ip - 1) * idot;
    }
    return inCh ? ch : c;
}

// The single transforms work in place: a result left in the work space is copied back.
void keepInPlace(const float* result, int length, float* data) {
    if (result != data) {
        std::copy(result, result + length, data);
    }
}

}  // namespace

void rffti(int n, float* tables, int* factors) {
    static constexpr int preferred[4] = {4, 2, 3, 5};
    factorize(n, factors, preferred);
    float* wa = tables + n;
    const int nf = factors[1];
    const float argh = twoPi / static_cast<float>(n);
    int is = 0;
    int l1 = 1;
    // The last factor runs with ido == 1 and needs no twiddles.
    for (int k1 = 1; k1 < nf; ++k1) {
        const int ip = factors[k1 + 1];
        const int l2 = l1 * ip;
        const int ido = n / l2;
        int ld = 0;
        for (int j = 1; j < ip; ++j) {
            ld += l1;
            const float argld = static_cast<float>(ld) * argh;
            float fi = 0.0f;
            int i = is;
            for (int ii = 3; ii <= ido; ii += 2) {
                fi += 1.0f;
                const float arg = fi * argld;
                wa[i] = std::cos(arg);
                wa[i + 1] = std::sin(arg);
                i += 2;
            }
            is += ido;
        }
        l1 = l2;
    }
}

void rfftf(int n, float* data, float* tables, const int* factors) {
    keepInPlace(realForward(n, data, tables, tables + n, factors), n, data);
}

void rfftb(int n, float* data, float* tables, const int* factors) {
    keepInPlace(realBackward(n, data, tables, tables + n, factors), n, data);
}

void cffti(int n, float* tables, int* factors) {
    static constexpr int preferred[4] = {3, 4, 2, 5};
    factorize(n, factors, preferred);
    float* wa = tables + 2 * n;
    const int nf = factors[1];
    const float argh = twoPi / static_cast<float>(n);
    int i = 0;  // index of the pair being written
    int l1 = 1;
    for (int k1 = 1; k1 <= nf; ++k1) {
        const int ip = factors[k1 + 1];
        const int l2 = l1 * ip;
        const int ido = n / l2;
        int ld = 0;
        for (int j = 1; j < ip; ++j) {
            // Each run of ido pairs starts with exp(0); for the general pass that head
            // is replaced by exp(i ido argld), the ip-th root of unity it needs. The
            // value one past the run is overwritten by the next run's head.
            const int head = i;
            wa[i] = 1.0f;
            wa[i + 1] = 0.0f;
            ld += l1;
            const float argld = static_cast<float>(ld) * argh;
            float fi = 0.0f;
            for (int ii = 1; ii <= ido; ++ii) {
                i += 2;
                fi += 1.0f;
                const float arg = fi * argld;
                wa[i] = std::cos(arg);
                wa[i + 1] = std::sin(arg);
            }
            if (ip > 5) {
                wa[head] = wa[i];
                wa[head + 1] = wa[i + 1];
            }
        }
        l1 = l2;
    }
}

void cfftf(int n, float* data, float* tables, const int* factors) {
    keepInPlace(complexTransform<true>(n, data, tables, tables + 2 * n, factors), 2 * n, data);
}

void cfftb(int n, float* data, float* tables, const int* factors) {
    keepInPlace(complexTransform<false>(n, data, tables, tables + 2 * n, factors), 2 * n, data);
}

const FftLanes* rfftfLanes(int n, FftLanes* data, FftLanes* scratch, const float* twiddles,
                           const int* factors) {
    return realForward(n, data, scratch, twiddles, factors);
}

const FftLanes* rfftbLanes(int n, FftLanes* data, FftLanes* scratch, const float* twiddles,
                           const int* factors) {
    return realBackward(n, data, scratch, twiddles, factors);
}

const FftLanes* cfftfLanes(int n, FftLanes* data, FftLanes* scratch, const float* twiddles,
                           const int* factors) {
    return complexTransform<true>(n, data, scratch, twiddles, factors);
}

const FftLanes* cfftbLanes(int n, FftLanes* data, FftLanes* scratch, const float* twiddles,
                           const int* factors) {
    return complexTransform<false>(n, data, scratch, twiddles, factors);
}

}  // namespace kelvo::vision
