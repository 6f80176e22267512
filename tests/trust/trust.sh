#!/bin/bash
# What OpenSSL's configuration makes of the platform's certificate: cloudtunnel-module with the installed configuration
# file, against cloudtunnel-sim with a certificate that is made here.
# Usage: trust.sh SCENARIO SIM MODULE CONFIGURATION TRUST_MODULE. The functions are the scenarios.
set -u
configuration=$4 trust_module=$5
stage=$(dirname "$0")/../apps/module/scenario.sh

key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1"; }

# authority NAME: a certificate that can issue others, with its key.
authority() {
    key "$tls/$1.key"
    openssl req -x509 -key "$tls/$1.key" -subj "/CN=$1" -days 1 -out "$tls/$1.pem"
}

# platform NAME AUTHORITY DAYS [USE]: a certificate for platform.example with its key, in the form that the simulator reads.
platform() {
    key "$tls/$1.key"
    openssl req -new -key "$tls/$1.key" -subj '/CN=platform.example' -out "$tls/$1.request"
    openssl x509 -req -in "$tls/$1.request" -CA "$tls/$2.pem" -CAkey "$tls/$2.key" -CAcreateserial -days "$3" \
        -extfile <(echo "extendedKeyUsage = ${4:-serverAuth}") -out "$tls/$1.certificate"
    cat "$tls/$1.certificate" "$tls/$1.key" >"$tls/$1.pem"
}

# prepare [SED_EXPRESSION...]: certificates, and the installed configuration with its two paths and the given changes.
prepare() {
    tls=$work/.tls
    mkdir "$tls"
    {
        authority trusted
        authority other
        platform right trusted 1
        platform expired trusted -1
        platform wrong other 1
        platform client trusted 1 clientAuth
    } >"$work/openssl" 2>&1 || fail 'the certificates cannot be made'
    sed -e "s,^path = .*,path = $trust_module," -e "s,^CAFile = .*,CAFile = $tls/trusted.pem," "$configuration" \
        >"$work/openssl.cnf"
    local change
    for change in "$@"; do
        sed -e "$change" "$work/openssl.cnf" >"$tls/changed"
        ! cmp -s "$tls/changed" "$work/openssl.cnf" || fail "'$change' changes nothing"
        mv "$tls/changed" "$work/openssl.cnf"
    done
}

# start CERTIFICATE [SIM_ARGUMENT...]: a platform with this certificate, and a module with the configuration.
start() {
    local certificate=$1
    shift
    start_sim --stay "--certificate=$tls/$certificate.pem" "$@"
    start_program env OPENSSL_CONF="$work/openssl.cnf" "$module" --seconds 60
}

accepted() {
    await_timeline 'TLS: established' 'hand-off'
    type_step 'request hello'
    await_timeline 'answer 1 sent'
}

# refused REASON [ALERT]: the timeline has the reason, and the platform gets the alert.
refused() {
    await_timeline "set-up failed: tls: .*, error:.*:$1;" 'next start in'
    ! grep -q 'TLS: established' "$work/program" || fail 'the platform was accepted'
    [ $# -eq 1 ] || wait_for sim "connection failed: .* alert $2"
}
unverified='certificate verify failed'

end() {
    type_step quit
    sim_ends
    stop_program
}

right() {
    prepare
    start right
    accepted
    end
}

wrong() {
    prepare
    start wrong
    refused "$unverified" 'unknown ca'
    end
}

expired() {
    prepare
    start expired
    refused "$unverified" 'certificate expired'
    end
}

not_for_a_server() {
    prepare
    start client
    refused "$unverified" 'unsupported certificate'
    end
}

right_name() {
    prepare 's,^#Name,Name,'
    start right
    accepted
    end
}

wrong_name() {
    prepare 's,^#Name.*,Name = other.example,'
    start right
    refused "$unverified" 'bad certificate'
    end
}

lowest_version() {
    prepare 's,^MinProtocol.*,MinProtocol = TLSv1.3,'
    start right --tls=1.2
    refused '.*protocol.*'
    end
}

# TLS 1.2 and 1.3 have their ciphers in lines of their own.
ciphers() {
    prepare 's,^#CipherString.*,CipherString = ECDHE+CHACHA20,' \
        's,^#Ciphersuites.*,Ciphersuites = TLS_CHACHA20_POLY1305_SHA256,'
    start right "--tls=$1"
    accepted
    wait_for sim "TLS: .*$2"
    end
}
ciphers_of_tls_1_2() { ciphers 1.2 ECDHE-ECDSA-CHACHA20-POLY1305; }
ciphers_of_tls_1_3() { ciphers 1.3 TLS_CHACHA20_POLY1305_SHA256; }

# The file is read for each connection.
new_authority() {
    prepare
    mv "$tls/trusted.pem" "$tls/next.pem"
    cp "$tls/other.pem" "$tls/trusted.pem"
    start right
    refused "$unverified" 'unknown ca'
    mv "$tls/next.pem" "$tls/trusted.pem"
    accepted
    end
}

# What is missing makes the check stricter, not weaker...
missing_authorities() {
    prepare "s,^CAFile = .*,CAFile = /missing.pem,"
    start right
    refused "$unverified" 'unknown ca'
    end
}
no_authorities() {
    prepare '/^CAFile/d'
    start right
    refused "$unverified" 'unknown ca'
    end
}
missing_module() {
    prepare 's,^path = .*,path = /missing.so,'
    start right
    refused "$unverified" 'unknown ca'
    end
}

# ...as long as OpenSSL finds the configuration, and finds in it what it looks for.
missing_configuration() {
    prepare
    rm "$work/openssl.cnf"
    start wrong
    accepted
    end
}
misspelt_configuration() {
    prepare 's,^system_default,system_defaults,'
    start wrong
    accepted
    end
}

# Why the module is there: OpenSSL takes the command from programs only.
without_the_module() {
    prepare '/^trust = /d' "s,^VerifyMode.*,&\nVerifyCAFile = $work/.tls/trusted.pem,"
    start right
    refused "$unverified" 'unknown ca'
    end
}

# shellcheck source=tests/apps/module/scenario.sh
. "$stage" "$1" "$2" "$3" ''
