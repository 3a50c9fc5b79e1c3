#!/usr/bin/env python3
"""Writes the four pages of bench/fastcgi_bench.sh twice: as tessel pages into SITE and as PHP
scripts that print the same bytes into PHP, each under the same .html name so that one URL
asks for either.

    python3 pages.py SITE PHP

The small page is bench/run.sh's, the table and calls pages are bench/expander_bench.sh's, and
the macros page calls the site's macros (SITE/_macro.cfg, read on every request) 1,500 times.
Each operator call of a tessel page is a call of a PHP function in its PHP twin (PHP/_ops.php),
so that neither side computes a result once and prints it for ever after: OPcache would fold
a call such as strtoupper('abc') written on the page into its result."""
import os
import random
import sys

site, php = sys.argv[1], sys.argv[2]


def write(folder, name, text):
    with open(os.path.join(folder, name), "w") as f:
        f.write(text)


# What the tessel operators of these pages do, one PHP function each.
write(php, "_ops.php", r"""<?php
function form($name) { return isset($_GET[$name]) ? htmlspecialchars($_GET[$name]) : ''; }
function fallback($text, $default) { return $text !== '' ? $text : $default; }
function left($text, $count) { return substr($text, 0, $count); }
function toupper($text) { return strtoupper($text); }
function length($text) { return strlen($text); }
function eq($a, $b, $yes, $no) { return $a == $b ? $yes : $no; }
function when($test, $yes, $no) { return $test !== '' ? $yes : $no; }
""")

# ---- the small page (bench/run.sh) -------------------------------------------------------
write(site, "small.html", """<html>
<head><title>^default[^form[title];Order status]</title></head>
<body>
<h1>Order ^left[A-2026-000117-X;13] for ^default[^form[name];guest]</h1>
<p>Placed at ^uri[], by ^eq[^form[name];;a new customer;a returning customer].
Your order has ^length[bolts, nuts, gears] characters of items, and ^^ marks stay literal.</p>
<table>
<tr><td>Bolts</td><td>^left[10 pieces in a box;9]</td></tr>
<tr><td>Nuts</td><td>^left[5 pieces in a bag;8]</td></tr>
<tr><td>Gears</td><td>^default[;out of stock]</td></tr>
</table>
<p>Questions? Write to us and quote ^toupper[a-2026-000117-x].</p>
</body>
</html>
""")
write(php, "small.html", """<?php require __DIR__ . '/_ops.php'; ?>
<html>
<head><title><?= fallback(form('title'), 'Order status') ?></title></head>
<body>
<h1>Order <?= left('A-2026-000117-X', 13) ?> for <?= fallback(form('name'), 'guest') ?></h1>
<p>Placed at <?= htmlspecialchars($_SERVER['REQUEST_URI']) ?>, by <?= eq(form('name'), '', 'a new customer', 'a returning customer') ?>.
Your order has <?= length('bolts, nuts, gears') ?> characters of items, and ^ marks stay literal.</p>
<table>
<tr><td>Bolts</td><td><?= left('10 pieces in a box', 9) ?></td></tr>
<tr><td>Nuts</td><td><?= left('5 pieces in a bag', 8) ?></td></tr>
<tr><td>Gears</td><td><?= fallback('', 'out of stock') ?></td></tr>
</table>
<p>Questions? Write to us and quote <?= toupper('a-2026-000117-x') ?>.</p>
</body>
</html>
""")

# ---- the table page (bench/expander_bench.sh): 1,000 rows through ^menu ------------------
random.seed(1)
rows = []
for i in range(1000):
    rows.append("\t".join(["item%d" % i, "Name number %d" % i, str(random.randint(1, 999)),
                           "note <%d> & more" % i, "x" * random.randint(1, 20)]))
write(site, "_rows", "\n".join(rows) + "\n")
write(php, "_rows", "\n".join(rows) + "\n")
write(site, "table.html",
      "<html><body><table>\n^load[rows]^menu[<tr><td>^item[0]</td><td>^item[1]</td>"
      "<td>^item[2]</td><td>^item[3]</td><td>^left[^item[4];5]</td><td>^item[number]</td>"
      "<td>^item[count]</td><td>^toupper[^item[0]]</td><td>^item[next;1]</td></tr>\n]"
      "</table></body></html>\n")
write(php, "table.html", """<?php
require __DIR__ . '/_ops.php';
$rows = [];
foreach (explode("\\n", rtrim(file_get_contents(__DIR__ . '/_rows'), "\\n")) as $line)
    $rows[] = explode("\\t", $line);
$count = count($rows);
function item($row, $column) { return htmlspecialchars($row[$column]); }
?>
<html><body><table>
<?php foreach ($rows as $i => $row) { ?>
<tr><td><?= item($row, 0) ?></td><td><?= item($row, 1) ?></td><td><?= item($row, 2) ?></td><td><?= item($row, 3) ?></td><td><?= left(item($row, 4), 5) ?></td><td><?= $i + 1 ?></td><td><?= $count ?></td><td><?= toupper(item($row, 0)) ?></td><td><?= item($rows[($i + 1) % $count], 1) ?></td></tr>
<?php } ?>
</table></body></html>
""")

# ---- the calls page (bench/expander_bench.sh): 20,002 calls -------------------------------
line = ("<p>^var[n;^left[line number 17 of the page;11]] ^toupper[^var[n]] ^left[abc;2] "
        "^eq[^length[abcdef];6;six;other] ^if[^var[k];yes;no] ^default[;empty]</p>\n")
body = ("<li>^var[i] ^left[pass text;4] ^if[^eq[^var[i];3;1;0];three;^var[i]] "
        "^length[^var[i]] ^toupper[x^var[i]]</li>\n")
write(site, "calls.html", "<html><body>\n^var[k;1]" + line * 1000 + "<ul>^for[i;1;1000;" +
      body + "]</ul></body></html>\n")
php_line = ("<p><?php $n = left('line number 17 of the page', 11); ?> <?= toupper($n) ?> "
            "<?= left('abc', 2) ?> <?= eq(length('abcdef'), 6, 'six', 'other') ?> "
            "<?= when($k, 'yes', 'no') ?> <?= fallback('', 'empty') ?></p>\n")
php_body = ("<li><?= $i ?> <?= left('pass text', 4) ?> <?= when(eq($i, 3, '1', ''), 'three', $i) ?> "
            "<?= length($i) ?> <?= toupper('x' . $i) ?></li>\n")
write(php, "calls.html",
      "<?php require __DIR__ . '/_ops.php'; ?>\n<html><body>\n<?php $k = '1'; ?>" +
      php_line * 1000 + "<ul><?php for ($i = 1; $i <= 1000; $i++) { ?>" + php_body +
      "<?php } ?></ul></body></html>\n")

# ---- the macros page: the site's macros, 300 rows of five macro calls ---------------------
write(site, "_macro.cfg", """# The site's macros, read on every request.
@row[label;price;qty]
<tr><td>$label</td><td class="num">^macro[money;$price]</td><td>$qty</td><td class="num">^macro[money;$price*$qty]</td></tr>
@money[amount]
^eval[$amount;%.2f]
@box[kind;text]
<p class="box $kind">$text</p>
""")
write(site, "macros.html", """<html><body>
^macro[box;ok;Your basket holds 300 lines.]
<table>
^for[i;1;300;^macro[row;Part ^var[i];^var[i].25;3]
]</table>
^macro[box;warn;Prices include tax.]
</body></html>
""")
write(php, "_macros.php", """<?php
function row($label, $price, $qty) {
    return '<tr><td>' . $label . '</td><td class="num">' . money($price) . '</td><td>' . $qty .
        '</td><td class="num">' . money($price * $qty) . "</td></tr>";
}
function money($amount) { return sprintf('%.2f', $amount); }
function box($kind, $text) { return '<p class="box ' . $kind . '">' . $text . '</p>'; }
""")
write(php, "macros.html", """<?php require __DIR__ . '/_macros.php'; ?>
<html><body>
<?= box('ok', 'Your basket holds 300 lines.') ?>

<table>
<?php for ($i = 1; $i <= 300; $i++) echo row('Part ' . $i, $i . '.25', 3), "\\n"; ?>
</table>
<?= box('warn', 'Prices include tax.') ?>

</body></html>
""")
