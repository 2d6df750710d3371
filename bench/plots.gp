# Draws the plots of docs/benchmarks.md from the tables in `results` into `docs`.
set terminal svg size 640,360 font "sans-serif,12" background "white"
set grid ytics linecolor "#dddddd"
set border 3
set tics nomirror out

set style data histogram
set style histogram errorbars gap 1
set errorbars linecolor "#444444"
set style fill solid 0.8 noborder
set yrange [0:*]
set key tmargin left Left reverse vertical
set bmargin 4
do for [mode in "rtt oneway"] {
  set output docs . "/benchmarks-" . mode . ".svg"
  set title mode eq "rtt" ? "Round trip of 64 bytes, microseconds (less is better)" \
                          : "One way, 64-byte messages a second (more is better)"
  plot results . "/" . mode . ".dat" using 2:3:4:xtic(1) title "pinned to one processor" linecolor "#2c6fbb", \
       "" using 5:6:7 title "free" linecolor "#a8c5e2"
}

set style data linespoints
set logscale x
set pointsize 0.6
set style line 1 linecolor "#2c6fbb" linewidth 2 pointtype 7
set style line 2 linecolor "#d9822b" linewidth 2 pointtype 7
set style line 3 linecolor "#888888" linewidth 2 pointtype 7
do for [what in "components services"] {
  set output docs . "/benchmarks-" . what . ".svg"
  set title "With that many " . what . " on the bus"
  set ylabel "microseconds"
  set y2label "KiB"
  set y2tics
  set y2range [0:*]
  set xlabel what
  plot results . "/" . what . ".dat" using 1:2 title "round trip" linestyle 1, \
       "" using 1:3 title "subscription" linestyle 2, \
       "" using 1:4 axes x1y2 title "memory of kxcore (right)" linestyle 3
}
unset y2label
unset y2tics

set output docs . "/benchmarks-subscribers.svg"
set title "From sending a signal until all subscribers have it"
set xlabel "subscribers"
set logscale y
set yrange [*:*]
plot results . "/subscribers.dat" using 1:2 notitle linestyle 1

set output docs . "/benchmarks-timers.svg"
set title "With that many timers armed"
set xlabel "timers"
plot results . "/timers.dat" using 1:2 title "arming and removing one" linestyle 1, \
     "" using 1:3 title "firing one" linestyle 2
