#!/usr/bin/perl
# CRCs by Perl's Digest::CRC for the lines on stdin.
#
# Each line: width poly init xorout refin refout data, numbers in hex, data
# as hex ("-" when empty). Digest::CRC reverses init for reflected input, so
# the caller's register start is passed reversed.
# Prints one hex result per line.
use strict;
use Digest::CRC;

sub reflect {
    my ($value, $width) = @_;
    my $out = 0;
    for (my $i = 0; $i < $width; $i++) {
        $out = ($out << 1) | ($value & 1);
        $value >>= 1;
    }
    return $out;
}

$| = 1;
while (my $line = <STDIN>) {
    my ($width, $poly, $init, $xorout, $refin, $refout, $data) = split ' ', $line;
    ($poly, $init, $xorout) = map { no warnings; hex($_) } ($poly, $init, $xorout);
    $init = reflect($init, $width) if $refin;
    my $crc = Digest::CRC->new(width => $width, init => $init, xorout => $xorout,
                               refout => $refout, poly => $poly, refin => $refin, cont => 0);
    $crc->add($data eq '-' ? '' : pack('H*', $data));
    printf "%x\n", $crc->digest;
}
