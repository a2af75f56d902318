# What programs do to a disk, step by step; run in an empty directory, on the mount and on a plain directory.
# shellcheck shell=bash
exec 2>&1
export LC_ALL=C.UTF-8 GIT_CONFIG_GLOBAL=/dev/null GIT_AUTHOR_DATE='@0 +0000' GIT_COMMITTER_DATE='@0 +0000'
git() { command git -c user.name=T -c user.email=t@example.invalid -c init.defaultBranch=main "$@"; }
mkdir -p src/sub/empty 'src/sub/Ünï 名前/deep er'
echo one >src/a && seq 90000 >src/sub/b && echo 3 >'src/sub/Ünï 名前/ñ'
cp -a src copied && cp -p src/a copied/p && ls -R copied
rsync -a src/ synced && rsync -ai --size-only src/ synced | grep '^>'; diff -r src synced
mkdir untarred && tar cf - -C src . | tar xf - -C untarred && diff -r src untarred
dd if=src/sub/b of=odd bs=777 seek=3 count=300 status=none
dd if=src/sub/b of=odd bs=1000 seek=7 count=9 conv=notrunc status=none
md5sum odd; truncate -s 300001 odd; md5sum odd; tail -c +299990 odd | od; truncate -s 9 odd; od -c odd; : >odd; cat odd
echo one >>log; echo two >>log; cat log; stat -c %s log
echo saved >doc && echo newer >.doc.swp && mv .doc.swp doc && cat doc && ls -A
exec 3>open; echo a >&3; rm open; echo b >&3; exec 3>&-
while compgen -G '.fuse_hidden*' >/dev/null; do sleep 0.1; done; ls -A
mkdir -p é/ü/ñ && echo x >é/ü/ñ/ø && mv é/ü z && cat z/ñ/ø && ls -R é z && rm -r é z
sqlite3 t.db 'create table t(a); insert into t values(1),(2); delete from t where a=1; select a from t; vacuum'
git init -q repo && cp -r src/* repo && (cd repo && git add . && git commit -qm one && git fsck && git log --stat)
git clone -q repo cloned && diff -r --exclude=.git repo cloned && echo cloned
chmod 600 copied/a && chown "$(id -u):$(id -g)" copied/a && touch -d 2001-01-01 copied/a && echo accepted
mkdir copied; rm none; mv none other; cat copied; cat none src/a/none; rmdir copied/a; mkdir none/m; ls -la none
mv copied/a copied/sub/b && cat copied/sub/b && mkdir x && touch x/f && mv x synced/x && ls -R synced
for i in 1 2 3 4 5 6 7 8; do seq "${i}0000" >p$i & done; wait; md5sum p?
rm -r untarred cloned && find . -name .git -prune -o -print | sort
