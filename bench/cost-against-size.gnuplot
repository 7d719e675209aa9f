# Processor time of a whole map against the volume's size. Takes: data, picture (a path without its ending), kinds.
set key left top
set xlabel 'volume, GiB'
set ylabel 'processor time, ms'
set logscale xy 2
set format y '%g'
set grid
do for [kind in 'png svg'] {
    set terminal (kind eq 'png' ? 'pngcairo' : 'svg') size 800,500
    set output picture.'.'.kind
    plot for [i = 0:kinds - 1] data index i using 1:2 with linespoints title columnheader(1)
}
