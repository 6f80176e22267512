# A platform on the Perl library Mojolicious. Usage: mojolicious_platform.pl PORT [CERTIFICATE TLS-VERSION]
use Mojolicious::Lite -signatures;
use Mojo::JSON qw(from_json to_json);
use Mojo::Server::Daemon;
use Mojo::WebSocket qw(WS_CONTINUATION WS_PING WS_PONG WS_TEXT);

STDOUT->autoflush(1);
my $tunnel;    # the newest

sub report ($event, %fields) { say to_json({event => $event, %fields}) }

# Frames of one turn of the loop leave in one piece: in one TLS record, if they fit.
my %orders = (
    text      => sub ($order) { $tunnel->send($order->{text}) },
    binary    => sub ($order) { $tunnel->send({binary => $order->{text}}) },
    burst     => sub ($order) { $tunnel->send($_) for @{$order->{texts}} },
    ping      => sub ($order) { $tunnel->send([1, 0, 0, 0, WS_PING, $order->{text}]) },
    close     => sub ($order) { $tunnel->finish($order->{code}, $order->{reason}) },
    fragments => sub ($order) {
        my @texts = @{$order->{texts}};
        for my $i (0 .. $#texts) {
            $tunnel->send([$i == $#texts ? 1 : 0, 0, 0, 0, $i ? WS_CONTINUATION : WS_TEXT, $texts[$i]]);
        }
    },
);

websocket '/tunnel' => sub ($c) {
    $tunnel = $c->tx;
    $tunnel->max_websocket_size(2 << 20);    # 256 KiB without this line
    my $handle = Mojo::IOLoop->stream($tunnel->connection)->handle;
    report('open', tls => $handle->can('get_sslversion') ? $handle->get_sslversion =~ s/_/./r : 'none');
    $c->on(text   => sub ($c, $bytes) { report('message', text => $bytes) });
    $c->on(binary => sub ($c, $bytes) { report('message', text => $bytes) });
    $c->on(frame  => sub ($c, $frame) { report('pong', text => $frame->[5]) if $frame->[4] == WS_PONG });
    $c->on(finish => sub ($c, $code, $reason) { report('ended', code => $code, reason => $reason // '') });
};

my ($port, $certificate, $version) = @ARGV;
my $listen = "http://127.0.0.1:$port";
$listen = "https://127.0.0.1:$port?cert=$certificate&key=$certificate&version=TLSv" . $version =~ s/\./_/r
    if $certificate;
app->log->level('fatal');
my $daemon = Mojo::Server::Daemon->new(app => app, listen => [$listen], silent => 1, inactivity_timeout => 0);
$daemon->start;
report('listening');

my $orders = Mojo::IOLoop::Stream->new(\*STDIN)->timeout(0);
my $typed  = '';
$orders->on(read => sub ($stream, $bytes) {
    $typed .= $bytes;
    while ($typed =~ s/^(.*)\n//) {
        my $order = from_json($1);
        $orders{$order->{do}}->($order);
    }
});
$orders->on(close => sub { exit });
$orders->start;
Mojo::IOLoop->stream($orders);
Mojo::IOLoop->start;
