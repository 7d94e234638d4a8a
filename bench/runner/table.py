"""Numbers as text."""

from statistics import median


def number(value):
    """Three or four digits that count, thousands apart."""
    if value >= 1000:
        return f"{value:,.0f}"
    if value >= 100:
        return f"{value:.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def spread(values):
    """'median (minimum .. maximum)'."""
    return f"{number(median(values))} ({number(min(values))} .. {number(max(values))})"


def ratio(values, base):
    """Median of the round-by-round ratios, so that what slows a whole round down cancels out."""
    pairs = [value / other for value, other in zip(values, base) if other > 0]
    return f"{median(pairs):.2f}" if pairs else "-"


def show(head, rows):
    """Prints a table; the first column is text, the others are aligned to the right."""
    widths = [max(len(str(row[i])) for row in [head, *rows]) for i in range(len(head))]
    for row in [head, *rows]:
        cells = [str(cell).rjust(width) for cell, width in zip(row, widths)]
        cells[0] = str(row[0]).ljust(widths[0])
        print("  " + "  ".join(cells).rstrip())
    print()
