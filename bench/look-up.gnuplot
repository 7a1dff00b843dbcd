# Draws the times of a look-up, those rows of Bench, in look-up.svg.
set terminal svg size 720,410 font "sans-serif,14" background "#ffffff"
set output "look-up.svg"
set datafile separator "\t"
set logscale xy
set xlabel "sessions in the report"
set ylabel "time of a look-up, ms"
set grid ytics
set key left top
set style data lines
plot "look-ups" index 0 using (real(stringcolumn(1))):(1e3 * $3) title "with the usual log" lw 2.5 lc "#bc4c00", \
     "" index 1 using (real(stringcolumn(1))):(1e3 * $3) title "with errors alone logged" lw 2.5 lc "#0969da", \
     "" index 1 using (real(stringcolumn(1))):(1e3 * $4) title "the tool alone" lw 2.5 lc "#6e7781"
