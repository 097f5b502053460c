#!/usr/bin/python3
# The SHDEC operations against a model on Python's decimal module: exact results rounded half up (or
# truncated) at the scale each operation states; powers digit for digit against the series worked out at 23
# places. usage: diff_decimal.py DRIVER [COUNT] [SEED]
import decimal
import math
import random
import struct
import subprocess
import sys
from decimal import Decimal as D, ROUND_HALF_UP as HU, ROUND_DOWN as DN

C, CDOWN = (decimal.Context(prec=400, rounding=r, Emax=10**6, Emin=-10**6, traps=[decimal.InvalidOperation])
            for r in (HU, DN))
C40 = decimal.Context(prec=40, rounding=HU)
L63, L79, L80 = 1 << 63, 1 << 79, 1 << 80

OVERFLOW, UNDERFLOW, SYNTAX, RANGE, FRACTION, ZERODIV, POWER = -304, -305, -306, -307, -308, -309, -310


class Err(Exception):
    pass


def fail_if(cond, code):
    if cond:
        raise Err(code)


# Values are (Decimal, scale), the value exact at that scale.

def num(neg, mag, scale):
    d = D(mag).scaleb(-scale, C)
    return (C.minus(d) if neg else d, scale)


def negate(v):
    return (C.minus(v[0]), v[1])


def mag_of(v):
    return abs(int(v[0].scaleb(v[1], context=C)))


def at(d, scale, mode=HU):
    return (d.quantize(D(1).scaleb(-scale), rounding=mode, context=C), scale)


def text(v):
    t = format(at(*v)[0], 'f')
    return t[1:] if t.startswith('-') and mag_of(v) == 0 else t


def steps_up(mag, n):
    return n if mag == 0 else next(j for j in range(n, -1, -1) if mag * 10 ** j < L79)


def digits_over(m, limit):
    """How many digits m must lose to come below limit."""
    return next(k for k in range(40) if m // 10 ** k < limit)


def normalise(v):
    d, s = v
    if s > 18:
        d, s = at(d, 18)
    k = digits_over(mag_of((d, s)), L63)
    fail_if(s - k < 0, OVERFLOW)
    return at(d, s - k) if k else (d, s)


def add_core(a, b):
    (da, sa), (db, sb) = a, b
    if sb > sa:
        s = sa + steps_up(mag_of(a), sb - sa)
        if s < sb:
            db, sb = at(db, s)
    elif sa > sb:
        s = sb + steps_up(mag_of(b), sa - sb)
        if s < sa:
            da, sa = at(da, s)
    else:
        s = sa
    r = at(C.add(da, db), s)
    if mag_of(r) >= L80:
        # A carry out of the 80 bits: one digit fewer for both, then again.
        fail_if(s == 0, OVERFLOW)
        r = at(C.add(at(da, s - 1)[0], at(db, s - 1)[0]), s - 1)
    return r


def mul_core(a, b):
    s, pm = a[1] + b[1], mag_of(a) * mag_of(b)
    if pm == 0:
        return (D(0), min(s, 23))
    k = digits_over(pm, L79)
    fail_if(s - k < 0, OVERFLOW)
    r = at(C.multiply(a[0], b[0]), s - k)
    return at(r[0], 23) if r[1] > 23 else r


def quotient(a, b, scale, mode):
    return at(CDOWN.divide(a[0], b[0]), scale, mode)


def set_scale(v, places, mode):
    d, s = v
    if places < s:
        return at(d, places, mode)
    fail_if(places > s and mag_of(v) * 10 ** (places - s) >= L79 and mag_of(v) != 0, OVERFLOW)
    return at(d, places)


def vanished(r, *operands):
    return [UNDERFLOW] if mag_of(r) == 0 and all(mag_of(x) for x in operands) else []


def op_mul(a, b, places=None, mode=HU):
    r = normalise(mul_core(a, b)) if places is None else set_scale(mul_core(a, b), places, mode)
    fail_if(mag_of(r) >= L63 and places is not None, OVERFLOW)
    return r, vanished(r, a, b)


def op_div(a, b, places=None, mode=DN):
    # without places: 18 places, truncated, a zero dividend returned as it is
    fail_if(mag_of(b) == 0, ZERODIV)
    if mag_of(a) == 0:
        return (a if places is None else (D(0), places)), []
    q = quotient(a, b, 18 if places is None else places, mode)
    fail_if(mag_of(q) >= (L79 if places is None else L63), OVERFLOW)
    fail_if(mag_of(q) == 0, UNDERFLOW)
    return q, []


def op_mod(a, b):
    fail_if(mag_of(b) == 0, ZERODIV)
    q = (C.divide_int(a[0], b[0]), 0)
    fail_if(mag_of(q) >= L79, OVERFLOW)
    return normalise(add_core(a, negate(mul_core(q, b)))), []


def op_round(a, places, mode):
    if mag_of(a) == 0:
        return (D(0), places), []
    r = set_scale(a, places, mode)
    fail_if(mag_of(r) >= L63, OVERFLOW)
    return r, vanished(r)


def op_toint(a, lo, hi):
    r = at(a[0], 0)[0]
    v = int(r)
    fail_if(v < lo or v > hi, RANGE)
    return v, ([FRACTION] if r != a[0] else [])


# The power series, step by step at 23 places.
ONE, SEVEN_TENTHS = (D(1), 0), (D('0.7'), 1)
LN2 = (D('0.69314718055994530941723'), 23)
LN10 = (D('2.30258509299404568401799'), 23)
LOG2E = (D('1.44269504088896340735992'), 23)


def series_div(a, b):
    fail_if(mag_of(b) == 0, ZERODIV)
    if mag_of(a) == 0:
        return a
    q = quotient(a, b, 23, DN)
    fail_if(mag_of(q) >= L79, OVERFLOW)
    return q


def ln_series(x):
    whole = mag_of(x) // 10 ** x[1]
    m = (len(str(whole)) if whole else 0) + 1
    y = (x[0].scaleb(-m, C), x[1] + m)
    if y[1] > 23:
        y = at(y[0], 23)
    fail_if(mag_of(y) == 0, POWER)
    res = mul_core((D(m), 0), LN10)
    while C.compare(y[0], SEVEN_TENTHS[0]) <= 0:
        y = add_core(y, y)
        res = add_core(res, negate(LN2))
    z = series_div(add_core(y, negate(ONE)), add_core(y, ONE))
    z2 = mul_core(z, z)
    p = add_core(z, z)
    n = 1
    while True:
        term = series_div(p, (D(n), 0))
        if mag_of(term) == 0:
            return res
        res = add_core(res, term)
        p = mul_core(p, z2)
        n += 2


def exp_series(x):
    fail_if(C.compare(x[0], D(43)) > 0, OVERFLOW)
    if C.compare(x[0], D(-42)) < 0:
        return None
    t = at(mul_core(x, LOG2E)[0], 0)
    n = int(t[0])
    r = x if n == 0 else add_core(x, negate(mul_core(t, LN2)))
    res, term, i = ONE, ONE, 1
    while True:
        term = series_div(mul_core(term, r), (D(i), 0))
        if mag_of(term) == 0:
            break
        res = add_core(res, term)
        i += 1
    return res if n == 0 else mul_core(res, (D(2 ** n), 0)) if n > 0 else series_div(res, (D(2 ** -n), 0))


def op_pow_series(b, e):
    fail_if(mag_of(b) == 0 or b[0] < 0, POWER)
    r = exp_series(mul_core(e, ln_series(b)))
    r = r and normalise(r)
    return ((D(0), 2), [UNDERFLOW]) if r is None or mag_of(r) == 0 else (r, [])


def op_pow_int(b, n):
    if n == 0:
        fail_if(mag_of(b) == 0 or b[0] < 0, POWER)
        return ONE, []
    p = ONE
    for bit in bin(abs(n))[2:]:
        p = mul_core(p, p)
        if bit == '1':
            p = mul_core(p, b)
    if n < 0:
        fail_if(mag_of(p) == 0, ZERODIV)
        p = quotient(ONE, p, 18, DN)
        fail_if(mag_of(p) >= L79, OVERFLOW)
    r = normalise(p)
    return ((D(0), 2), [UNDERFLOW]) if mag_of(r) == 0 and mag_of(b) != 0 else (r, [])


def from_double(x):
    t = C.create_decimal(repr(x)).normalize(C).as_tuple()
    mag, scale = int(''.join(map(str, t.digits))), -t.exponent
    if mag == 0:
        return (D(0), 0), []
    if scale < 0:
        mag, scale = mag * 10 ** -scale, 0
        fail_if(mag >= L79, OVERFLOW)
    if scale <= 28:
        return num(t.sign == 1, mag, scale), []
    # More places than a decimal holds: the nearest 28-place value to the
    # double's exact binary value (not to its shortest digits).
    v = at(D(x), 28)
    return v, [UNDERFLOW] if mag_of(v) == 0 else []


def from_double_round(x, places):
    v, _ = from_double(x)
    if mag_of(v) == 0:
        return (D(0), places), ([UNDERFLOW] if x != 0 else [])
    return op_round(v, places, HU)


def parse(t):
    sign, digits, exp = C.create_decimal(t.strip(' ')).as_tuple()
    mag, scale = int(''.join(map(str, digits))), -exp
    fail_if(mag >= L79 or scale > 28, RANGE)
    if scale < 0:
        fail_if(mag and mag * 10 ** -scale >= L79, RANGE)
        mag, scale = mag * 10 ** -scale, 0
    return num(sign == 1, mag, scale)


def f32(x):
    return struct.unpack('f', struct.pack('f', x))[0]


def nearest_float32(d):
    """The float nearest to the exact decimal d (ties to even)."""
    f = float(d)
    bits = struct.unpack('<I', struct.pack('<f', f))[0]
    cands = [struct.unpack('<f', struct.pack('<I', c))[0] for c in (bits - 1, bits, bits + 1)
             if c >= 0 and (c & 0x7F800000) != 0x7F800000]
    return min(cands, key=lambda c: (abs(C.subtract(C.create_decimal(c), d)), struct.pack('<f', c)[0] & 1))

def rand_mag(rng, max_digits):
    if rng.random() < 0.03:
        return 0
    nd = rng.randint(1, max_digits)
    hi = min(10 ** nd, L79)
    lo = 10 ** (nd - 1)
    return rng.randrange(lo if lo < hi else hi // 10, hi)


def rand_num(rng):
    kind = rng.random()
    if kind < 0.3:      # money-like
        mag, scale = rand_mag(rng, 10), rng.randint(0, 4)
    elif kind < 0.6:    # everyday values within the published precision
        mag, scale = rand_mag(rng, 18), rng.randint(0, 18)
    elif kind < 0.8:    # the whole range
        mag, scale = rand_mag(rng, 24), rng.randint(0, 28)
    else:               # near the limits
        mag = rng.choice([L79 - 1 - rng.randrange(1000), L63 - 1 - rng.randrange(1000),
                          L63 + rng.randrange(1000), 10 ** rng.randint(18, 23) - rng.randrange(3),
                          rng.randrange(1, L79)])
        scale = rng.choice([0, 1, 2, 17, 18, 19, 23, 28])
    return (rng.random() < 0.5, mag, scale)


def raw(n):
    return '@%d:%d:%d' % (1 if n[0] else 0, n[2], n[1])


def rand_text(rng):
    nd = rng.choice([1, 2, 3, 5, 8, 12, 18, 22, 24, 25, 26, 30])
    digits = ''.join(rng.choice('0123456789') for _ in range(nd))
    if rng.random() < 0.2:
        digits = '0' * rng.randint(1, 5) + digits
    t = digits
    if rng.random() < 0.7:
        p = rng.randint(0, len(digits))
        t = digits[:p] + '.' + digits[p:]
    if rng.random() < 0.3:
        t += rng.choice('eE') + rng.choice(['', '+', '-']) + str(rng.randint(0, 30))
    if rng.random() < 0.4:
        t = '-' + t
    if rng.random() < 0.2:
        t = ' ' * rng.randint(1, 3) + t + ' ' * rng.randint(0, 3)
    return t


MALFORMED = ['', ' ', '   ', '.', '-', '-.', '1e', '1e+', '1.2.3', '+1', '1 2', 'abc', '--1',
             '1-', 'e5', '.e1', '1,5', '0x10', 'inf', 'nan', '1_0', '\t1', '1\t', '1e1.5',
             '- 1', '1e--2', '1..', '..1', '1e 2', '1.5x', '9' * 40 + 'x', '1' * 30 + '.1.']


def main():
    driver = sys.argv[1]
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 100000
    rng = random.Random(int(sys.argv[3]) if len(sys.argv) > 3 else 20261122)
    lines, checks = [], []

    def case(line, fn, *args):
        # fn(*args) gives (value, notes) or raises Err; a tuple is the answer itself
        lines.append(line)
        if isinstance(fn, tuple):
            return checks.append(fn)
        try:
            v, warns = fn(*args)
            checks.append(('ok', str(v) if isinstance(v, int) else text(v), warns))
        except Err as e:
            checks.append(('err', e.args[0]))

    for _ in range(count):
        a, b, up = rand_num(rng), rand_num(rng), rng.randint(0, 5)
        if rng.random() < 0.1 and a[1] * 10 ** up < L79 and a[2] + up <= 28:  # equal values at other scales
            b = (rng.random() < 0.5, a[1] * 10 ** up, a[2] + up)
        va, vb, ra, rb = num(*a), num(*b), raw(a), raw(b)
        places = rng.randint(0, 18)
        for op, fn, extra in (('add', lambda a, b: (normalise(add_core(a, b)), []), ()),
                              ('sub', lambda a, b: (normalise(add_core(a, negate(b))), []), ()), ('mul', op_mul, ()),
                              ('mulr', op_mul, (places, HU)), ('mult', op_mul, (places, DN)),
                              ('div', op_div, ()), ('divr', op_div, (places, HU)),
                              ('divt', op_div, (places, DN)), ('mod', op_mod, ())):
            case('%s %s %s%s' % (op, ra, rb, ' %d' % places if extra else ''), fn, va, vb, *extra)
        case('round %s %d' % (ra, places), op_round, va, places, HU)
        case('trunc %s %d' % (ra, places), op_round, va, places, DN)
        case('cmp %s %s' % (ra, rb), ('ok', str(int(C.compare(va[0], vb[0]))), []))
        case('mag %s %s' % (ra, rb), ('ok', str(int(C.compare(abs(va[0]), abs(vb[0])))), []))
    # Quotients whose long division takes its rare add-back step (operands worked out to reach it).
    for ma, mb in ((1074429392118030481450092, 1093815967046824352940031),
                   (836702538917138632176712, 1150563680450895598714879)):
        for op, mode in (('divr', HU), ('divt', DN)):
            case('%s %s %s 15' % (op, raw((False, ma, 0)), raw((True, mb, 0))), op_div, num(False, ma, 0), num(True, mb, 0), 15, mode)

    for _ in range(count):
        t = rand_text(rng)
        case('parse ' + t, lambda t: (parse(t), []), t)
    for t in MALFORMED:
        case('parse ' + t, ('err', SYNTAX))

    bounds = {'toint': (-32768, 32767), 'touns': (0, 65535), 'tolong': (-2 ** 31, 2 ** 31 - 1),
              'toulong': (0, 2 ** 32 - 1)}
    for _ in range(count):
        neg = rng.random() < 0.5
        scale = rng.randint(0, 6)
        mag = rng.randrange(0, 10 ** rng.randint(1, 12))
        if rng.random() < 0.1:
            mag = rng.choice([32767, 32768, 65535, 65536, 2 ** 31 - 1, 2 ** 31, 2 ** 32 - 1, 2 ** 32])
            mag = max(mag * 10 ** scale + rng.choice([0, 4, 5, -5, -6]) * 10 ** max(scale - 1, 0), 0)
        op = rng.choice(list(bounds))
        case('%s %s' % (op, raw((neg, mag, scale))), op_toint, num(neg, mag, scale), *bounds[op])

    for _ in range(count):
        kind = rng.random()
        if kind < 0.4:
            x = rng.uniform(-1e6, 1e6)
        elif kind < 0.7:
            x = round(rng.uniform(-1e5, 1e5), rng.randint(0, 6))
        else:
            x = math.copysign(10 ** rng.uniform(-32, 25), rng.choice([-1, 1]))
        case('fromdouble %r' % x, from_double, x)
        places = rng.randint(0, 18)
        case('fromdoubler %r %d' % (x, places), from_double_round, x, places)
        n = rand_num(rng)
        case('todouble %s' % raw(n), ('float', float(num(*n)[0])))
        if rng.random() < 0.1:
            case('tofloat %s' % raw(n), ('float32', nearest_float32(num(*n)[0])))

    # Ties and near-ties the random draw seldom meets (2^53 + 1, 2^24 + 1, just above a float tie).
    for t in ('9007199254740993', '9007199254740995', '-0.100000000000000005551115', '16777217', '16777219',
              '16777217.0000000001', '@0:28:%d' % (L79 - 1)):
        d = num(False, L79 - 1, 28)[0] if t[0] == '@' else D(t)
        case('todouble ' + t, ('float', float(d)))
        case('tofloat ' + t, ('float32', nearest_float32(d)))

    # Powers: the series against Python's power, and step by step.
    for _ in range(count // 10):
        base = D(rng.randrange(1, 10 ** 8)).scaleb(-rng.randint(0, 8))
        e = D(rng.randrange(-5000, 5000)).scaleb(-3)
        if e == e.to_integral_value():
            e += D('0.001')
        if abs(C40.multiply(e, C40.ln(base))) > 40:
            continue
        case('pow %s %s' % (base, e), op_pow_series, (base, -base.as_tuple().exponent),
             (e, -e.as_tuple().exponent))

    # Integral exponents over the whole range.
    for _ in range(count // 10):
        nb, mb, sb = rand_num(rng)
        n = rng.choice([rng.randint(-12, 12), rng.randint(-40, 40), rng.choice([-32768, 32767])])
        es = rng.randint(0, 3)
        case('pow %s %s' % (raw((nb, mb, sb)), raw((n < 0, abs(n) * 10 ** es, es))), op_pow_int,
             num(nb, mb, sb), n)

    # The series over the whole range, overflow and vanishing included.
    for _ in range(count // 20):
        neg_b, mb, sb = rand_num(rng)
        me, se = rng.randrange(1, 10 ** rng.randint(1, 6)), rng.randint(1, 4)
        if me % 10 ** se == 0:
            me += 1
        ve = num(rng.random() < 0.5, me, se)
        case('pow %s %s' % (raw((False, mb, sb)), raw((ve[0] < 0, me, se))), op_pow_series,
             num(False, mb, sb), ve)

    out = subprocess.run([driver, 'dec', '--batch'], input=('\n'.join(lines) + '\n').encode(), stdout=subprocess.PIPE,
                         check=True).stdout.decode().split('\n')
    failures = 0
    for line, exp, got in zip(lines, checks, out + ['missing'] * len(lines)):
        got = got.split(' ')
        if exp[0] in ('ok', 'err'):
            want = [exp[0], str(exp[1])] + ['w%d' % w for w in exp[2:] and exp[2]]
            ok = got == want
        else:  # 'float', 'float32'
            want, ok = repr(exp[1]), len(got) == 2 and got[0] == 'ok' and (f32 if exp[0] == 'float32' else float)(float(got[1])) == exp[1]
        failures += not ok
        if not ok and failures <= 30:
            print('MISMATCH %r\n  got:  %s\n  want: %s' % (line, ' '.join(got), want))
    print('%d cases, %d mismatches' % (len(lines), failures))
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
