# Prints what Encode's MacKorean makes of every byte sequence of one or two
# bytes ("D <bytes> <text or ->") and of every BMP character ("E <character>
# <bytes or ->"), all in hex; exits 3 without Encode's MacKorean.
use strict; use warnings;
my $e = eval { require Encode; Encode::find_encoding("MacKorean") } or exit 3;
sub hex_of { defined $_[0] ? unpack("H*", $_[0]) : "-" }
binmode STDOUT;
for my $a (-1 .. 255) { for my $b (0 .. 255) {
  my $bytes = ($a < 0 ? "" : chr $a) . chr $b; my $in = $bytes;
  my $text = eval { $e->decode($in, Encode::FB_CROAK()) };
  print "D ", unpack("H*", $bytes), " ", hex_of($in eq "" && defined $text ? Encode::encode_utf8($text) : undef), "\n";
} }
for my $cp (0 .. 0xD7FF, 0xE000 .. 0xFFFF) {
  my $in = chr $cp; my $bytes = eval { $e->encode($in, Encode::FB_CROAK()) };
  print "E ", unpack("H*", Encode::encode_utf8(chr $cp)), " ", hex_of($in eq "" ? $bytes : undef), "\n";
}
